#include "distext.h"

#include "disfields.hpp"
#include "entityid.h"
#include "plaintext.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <utility>

#include <tolvin/kernel/kerneldisprint.h>
#include <tolvin/kernel/kerneldistext.h>

namespace tolvin
{

namespace
{

template<class Number>
std::string textOf(Number number)
{
    std::array<char, 32> text;
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
    return {text.data(), end};
}

template<class Bytes>
std::string hexOf(const Bytes &bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes)
    {
        constexpr char kDigits[] = "0123456789abcdef";
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

// Up to its first zero byte.
std::string markingOf(const vuMarking &marking)
{
    const char *const end = std::ranges::find(marking.text, '\0');
    return {marking.text, end};
}

constexpr std::string_view kLastOfHeader = "status";

template<class Field>
concept Bytes = requires(const Field &field)
{
    requires sizeof field[0] == 1;
}
&&!std::is_same_v<Field, char[11]>;

// Writes the fields that it visits as members of an object.
class JsonWriter
{
public:
    explicit JsonWriter(std::string &text) : text_(text)
    {
    }

    template<class Field>
    void operator()(const char *name, const Field &field)
    {
        if (name != nullptr)
        {
            member(name);
            write(field);
        }
    }

    void member(const char *name)
    {
        text_ += isFirst_ ? "" : ",";
        isFirst_ = false;
        text_ += jsonText(name) + ':';
    }

    template<class Field>
    void write(const Field &field)
    {
        if constexpr (std::is_same_v<Field, char[11]>)
        {
            text_ += jsonText(std::string_view(field, std::ranges::find(field, '\0') - field));
        }
        else if constexpr (Bytes<Field>)
        {
            text_ += jsonText(hexOf(field));
        }
        else if constexpr (requires { std::begin(field); })
        {
            char before = '[';
            for (const auto &element : field)
            {
                text_ += std::exchange(before, ',');
                write(element);
            }
            text_ += before == '[' ? "[]" : "]";
        }
        else if constexpr (std::is_class_v<Field>)
        {
            text_ += '{';
            JsonWriter inner(text_);
            fieldsOf(inner, field);
            text_ += '}';
        }
        else
        {
            number(field);
        }
    }

private:
    template<class Number>
    void number(Number value)
    {
        if constexpr (std::is_floating_point_v<Number>)
        {
            text_ += std::isfinite(value) ? textOf(value) : "null";
        }
        else
        {
            text_ += textOf(+value);
        }
    }

    std::string &text_;
    bool isFirst_ = true;
};

// Prints the fields that it visits behind the header, which has its own printer.
class FieldPrinter
{
public:
    explicit FieldPrinter(std::FILE *out) : out_(out)
    {
    }

    template<class Field>
    void operator()(const char *name, const Field &field)
    {
        if (inHeader_ || name == nullptr)
        {
            inHeader_ = inHeader_ && (name == nullptr || std::string_view(name) != kLastOfHeader);
        }
        else if constexpr (std::is_class_v<Field>)
        {
            std::fprintf(out_, "%s:\n", name);
            print(field);
        }
        else
        {
            std::string text;
            JsonWriter(text).write(field);
            std::fprintf(out_, "%-18s%s\n", (name + std::string(":")).c_str(), text.c_str());
        }
    }

private:
    void print(const vuEntityId &id)
    {
        printEntityID(out_, &id);
    }

    void print(const vuEntityType &type)
    {
        printEntityType(out_, &type);
    }

    template<class Record>
    void print(const Record &record)
    {
        fieldsOf(*this, record);
    }

    std::FILE *out_;
    bool inHeader_ = true;
};

void printRecord(std::FILE *out, const DisMessage &message)
{
    const std::vector<std::uint32_t> words = printable(message);
    const void *const printed = words.data();
    const auto print = [&]<class Record>(const Record &record)
    {
        if constexpr (std::is_same_v<Record, vuEntityState>)
        {
            printEntityState(out, static_cast<const Record *>(printed));
        }
        else if constexpr (std::is_same_v<Record, vuCreateEntityPdu>)
        {
            printCreateEntityPDU(out, static_cast<const Record *>(printed)); // as Remove Entity
        }
        else if constexpr (std::is_same_v<Record, vuAcknowledgePdu>)
        {
            printAcknowledgePDU(out, static_cast<const Record *>(printed));
        }
        else if constexpr (std::is_same_v<Record, vuDataQueryPdu>)
        {
            printDataQueryPDU(out, static_cast<const Record *>(printed));
        }
        else if constexpr (std::is_same_v<Record, vuSetDataPdu>)
        {
            printSetDataPDU(out, static_cast<const Record *>(printed)); // as Data
        }
        else
        {
            const PduHeader header = headerOf(message);
            printPduHeader(out, &header);
            FieldPrinter printer(out);
            fieldsOf(printer, record);
        }
    };
    std::visit(print, message.record);
}

// What PDUs are sent to, or are about besides.
std::optional<vuEntityId> objectOf(const DisMessage &message)
{
    return std::visit(
        []<class Fields>(const Fields &record) -> std::optional<vuEntityId>
        {
            if constexpr (requires { record.target; })
            {
                return record.target;
            }
            else if constexpr (requires { record.colliding; })
            {
                return record.colliding;
            }
            else if constexpr (requires { record.receiving; })
            {
                return record.receiving;
            }
            else
            {
                return std::nullopt;
            }
        },
        message.record);
}

} // namespace

std::string jsonText(std::string_view text)
{
    std::string quoted = "\"";
    for (const char c : text)
    {
        const auto byte = static_cast<std::uint8_t>(c);
        if (c == '"' || c == '\\')
        {
            quoted += {'\\', c};
        }
        else if (byte < 0x20 || byte >= 0x7F)
        {
            quoted += "\\u00" + hexOf(std::array{byte});
        }
        else
        {
            quoted += c;
        }
    }
    return quoted + '"';
}

std::string jsonOf(const DisMessage &message)
{
    std::string text = "{";
    JsonWriter json(text);
    json.member("pdu");
    text += jsonText(getPDUTypeStringDIS(headerOf(message).pduType));
    std::visit([&json](const auto &record) { fieldsOf(json, record); }, message.record);
    const auto list = [&json](const char *name, const auto &items, bool belongs)
    {
        if (belongs)
        {
            json(name, items);
        }
    };
    const bool isQuery = std::holds_alternative<vuDataQueryPdu>(message.record);
    const bool isData = std::holds_alternative<vuSetDataPdu>(message.record);
    list("parameters", message.parameters, !message.parameters.empty());
    list("fixedIds", message.fixedIds, isQuery);
    list("variableIds", message.variableIds, isQuery);
    list("fixedDatums", message.fixedDatums, isData);
    list("variableDatums", message.variableDatums, isData);
    list("rest", message.rest, !message.rest.empty());
    return text + '}';
}

void printMessage(std::FILE *out, const DisMessage &message)
{
    printRecord(out, message);
    for (const VariableParameter &parameter : message.parameters)
    {
        std::fprintf(out, "parameter:        type %d, change %d, attached to %d, %lu, value %s\n", parameter.type,
                     parameter.change, parameter.attachedTo, static_cast<unsigned long>(parameter.parameter),
                     hexOf(parameter.value).c_str());
    }
    if (!message.rest.empty())
    {
        std::fprintf(out, "rest:             %s\n", hexOf(message.rest).c_str());
    }
}

std::string lineOf(const DisMessage &message)
{
    const PduHeader header = headerOf(message);
    std::string line = getPDUTypeStringDIS(header.pduType);
    if (line == "unknown")
    {
        line = "type " + textOf(header.pduType);
    }
    line += ", exercise " + textOf(header.exerciseId);
    if (const auto subject = subjectOf(message))
    {
        line += ", " + textOf(*subject);
    }
    if (const auto object = objectOf(message))
    {
        line += " to " + textOf(*object);
    }
    if (const auto *const state = std::get_if<vuEntityState>(&message.record))
    {
        line += " \"" + plainText(markingOf(state->marking)) + '"';
    }
    std::visit(
        [&line](const auto &record)
        {
            // In world coordinates; that of a collision is in those of an entity.
            if constexpr (requires {
                              requires std::is_same_v < std::remove_cvref_t<decltype(record.location[0])>,
                              double > ;
                          })
            {
                std::array<char, 1000> place; // three numbers of 310 digits
                std::snprintf(place.data(), place.size(), " at %.1f %.1f %.1f", double{record.location[0]},
                              double{record.location[1]}, double{record.location[2]});
                line += place.data();
            }
        },
        message.record);
    return line + ", " + textOf(header.length) + " bytes";
}

} // namespace tolvin
