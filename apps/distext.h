// PDUs as text: for people, a line each, and as JSON (RFC 8259).
#pragma once

#include "dismessage.h"

#include <cstdio>
#include <string>
#include <string_view>

namespace tolvin
{

// Field by field, as the library's printers do it (kerneldisprint.h), and likewise for the kinds that it has no printer for.
// What is behind the known fields is shown in hexadecimal.
void printMessage(std::FILE *out, const DisMessage &message);

// Kind, exercise, who, and the most important of the rest; without a newline. From somebody else's text only what can be
// printed.
std::string lineOf(const DisMessage &message);

// An object with all fields but padding, in their order on the wire. Numbers have as many digits as tell them apart, those that are
// infinite or none are null; bytes whose meaning is not known are a text of hexadecimal digits.
std::string jsonOf(const DisMessage &message);

// A text in quotes, with what JSON does not allow in it escaped; bytes above 127 are taken as Latin-1.
std::string jsonText(std::string_view text);

} // namespace tolvin
