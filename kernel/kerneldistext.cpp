#include "kerneldistext.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace
{

struct Text
{
    uint32_t value;
    const char *text;
};

// In order of their values.
constexpr Text kVersions[] = {{0, "other"},
                              {1, "1.0 (May 92)"},
                              {2, "IEEE 1278-1993"},
                              {3, "2.0 third draft (May 93)"},
                              {4, "2.0 fourth draft (Mar 94)"},
                              {5, "IEEE 1278.1-1995"}};

constexpr Text kFamilies[] = {{0, "other"},
                              {1, "entity information/interaction"},
                              {2, "warfare"},
                              {3, "logistics"},
                              {4, "radio communication"},
                              {5, "simulation managment"},
                              {6, "distributed emission regeneration"},
                              {129, "experimental cgf"},
                              {130, "experimental entity information/interaction field instrumentation"},
                              {131, "experimental warfare field instrumentation"},
                              {132, "experimental environment object information/interaction"},
                              {133, "experimental entity managment"}};

constexpr Text kPduTypes[] = {{0, "other"},
                              {1, "entity state"},
                              {2, "fire"},
                              {3, "detonation"},
                              {4, "collision"},
                              {5, "service request"},
                              {6, "resuply offer"},
                              {7, "resupply received"},
                              {8, "resuply cancel"},
                              {9, "repair complete"},
                              {10, "repair response"},
                              {11, "create entity"},
                              {12, "remove entity"},
                              {13, "start/resume"},
                              {14, "stop/freeze"},
                              {15, "acknowledge"},
                              {16, "action request"},
                              {17, "action response"},
                              {18, "data query"},
                              {19, "set data"},
                              {20, "data"},
                              {21, "event report"},
                              {22, "message"},
                              {23, "electromagnetic emission"},
                              {24, "designator"},
                              {25, "transmitter"},
                              {26, "signal"},
                              {27, "receiver"},
                              {129, "announce object"},
                              {130, "delete object"},
                              {131, "describe application"},
                              {132, "describe event"},
                              {133, "describe object"},
                              {134, "request event"},
                              {135, "request object"},
                              {140, "time space position indicator FI"},
                              {141, "appearance FI"},
                              {142, "articulated parts FI"},
                              {143, "fire FI"},
                              {144, "detonation FI"},
                              {150, "point object state"},
                              {151, "linear object state"},
                              {152, "areal object state"},
                              {153, "environment"},
                              {155, "transfer control request"},
                              {156, "transfer control"},
                              {157, "transfer control acknowledge"},
                              {160, "intercom control"},
                              {161, "intercom signal"},
                              {170, "aggregate"}};

constexpr Text kKinds[] = {{0, "other"},         {1, "platform"},         {2, "munition"}, {3, "life form"},
                           {4, "environmental"}, {5, "cultural feature"}, {6, "supply"},   {7, "radio"},
                           {8, "expendable"},    {9, "sensor/emitter"}};

constexpr Text kPlatformDomains[] = {{0, "other"},   {1, "land"},       {2, "air"},
                                     {3, "surface"}, {4, "subsurface"}, {5, "space"}};

constexpr Text kLandCategories[] = {{0, "other"},
                                    {1, "tank"},
                                    {2, "armored fighting vehicle"},
                                    {3, "armored utility vehicle"},
                                    {4, "self propelled artillery"},
                                    {5, "towed artillery"},
                                    {6, "small wheeled utility vehicle"},
                                    {7, "large wheeled utility vehicle"},
                                    {8, "small tracked utility vehicle"},
                                    {9, "large tracked utility vehicle"},
                                    {10, "mortar"},
                                    {11, "mine plow"},
                                    {12, "mine rake"},
                                    {13, "mine roller"},
                                    {14, "cargo trailer"},
                                    {15, "fuel trailer"},
                                    {16, "generator trailor"},
                                    {17, "water trailer"},
                                    {18, "engeneer equipment"},
                                    {19, "heavy equipment trailer"},
                                    {20, "maintenance equipment trailer"},
                                    {21, "limber"},
                                    {22, "chemical decontamination trailer"}};

constexpr Text kAirCategories[] = {{0, "other"}, {1, "fighter/air-defense"}};

constexpr Text kCountries[] = {{0, "other"},
                               {78, "germany"},
                               {222, "commonwealth of independent states"},
                               {224, "united kingdom"},
                               {225, "united states"}};

constexpr Text kDatums[] = {{10000, "identification"},
                            {11000, "type"},
                            {11100, "concatenated"},
                            {11110, "kind"},
                            {11120, "domain"},
                            {11130, "country"},
                            {11140, "category"},
                            {11150, "subcategory"},
                            {11160, "specific"},
                            {11170, "extra"},
                            {11200, "force id"},
                            {11300, "description"},
                            {12000, "alt type"},
                            {12110, "alt kind"},
                            {12120, "alt domain"},
                            {12130, "alt country"},
                            {12140, "alt category"},
                            {12150, "alt subcategory"},
                            {12160, "alt specific"},
                            {12170, "alt extra"},
                            {12300, "alt description"},
                            {13000, "marking"},
                            {13100, "marking string"},
                            {13200, "crew id"},
                            {14000, "task organisation"},
                            {14200, "regiment name"},
                            {14300, "battallion name"},
                            {14400, "company name"},
                            {14500, "platoon name"},
                            {14520, "squad name"},
                            {14540, "team name"},
                            {14600, "bumper name"},
                            {14700, "vehicle name"},
                            {14800, "unit number"},
                            {15000, "dis identity"},
                            {15100, "dis site id"},
                            {15200, "dis host id"},
                            {15300, "dis entity id"},
                            {20000, "loads"},
                            {21000, "crew members"},
                            {21100, "crew member id"},
                            {21200, "health"},
                            {21300, "job assignment"},
                            {23000, "fuel"},
                            {23100, "quantity fuel (liter)"},
                            {23105, "quantity fuel (gallons)"},
                            {31210, "pos x"},
                            {31220, "pos y"},
                            {31230, "pos z"},
                            {31300, "latitude"},
                            {31400, "longitude"},
                            {31500, "line of sight"},
                            {32500, "phi"},
                            {32600, "theta"},
                            {32700, "psi"},
                            {33000, "appearance"},
                            {35000, "body damage ratio"},
                            {36100, "x-vel"},
                            {36200, "y-vel"},
                            {36300, "z-vel"},
                            {37100, "x-accel"},
                            {37200, "y-accel"},
                            {37300, "z-accel"},
                            {40000, "exercise"},
                            {41000, "terrain database"},
                            {61400, "radar status"},
                            {62100, "radio status"},
                            {62200, "stationary radiotime"},
                            {62300, "moving radiotime"},
                            {71000, "dr algorithm"},
                            {90000, "num articulated param"},
                            {100001, "x-angular-vel"},
                            {100002, "y-angular-vel"},
                            {100003, "z-angular-vel"},
                            {100014, "articulated param id"},
                            {100047, "articulated param type"},
                            {100048, "articulated param value"}};

// Null for a value that is not in the table.
template<size_t Size>
const char *find(const Text (&table)[Size], uint32_t value)
{
    const Text *const found = std::ranges::lower_bound(table, value, {}, &Text::value);
    return found != std::end(table) && found->value == value ? found->text : nullptr;
}

template<size_t Size>
const char *textOf(const Text (&table)[Size], uint32_t value)
{
    const char *const text = find(table, value);
    return text != nullptr ? text : "unknown";
}

} // namespace

const char *getVersionStringDIS(uint8_t version)
{
    return textOf(kVersions, version);
}

const char *getPDUFamilyStringDIS(uint8_t family)
{
    return textOf(kFamilies, family);
}

const char *getPDUTypeStringDIS(uint8_t type)
{
    return textOf(kPduTypes, type);
}

const char *getEntityTypeKindStr(uint8_t kind)
{
    return textOf(kKinds, kind);
}

const char *getEntityTypePlatformStr(uint8_t domain)
{
    return textOf(kPlatformDomains, domain);
}

const char *getEntityTypePlLandStr(uint16_t category)
{
    return textOf(kLandCategories, category);
}

const char *getEntityTypePlAirStr(uint8_t category)
{
    return textOf(kAirCategories, category);
}

const char *getEntityCountryStr(uint8_t country)
{
    return textOf(kCountries, country);
}

const char *getDatumStr(uint32_t datum)
{
    static char unknown[32];
    const char *const text = find(kDatums, datum);
    if (text == nullptr)
    {
        snprintf(unknown, sizeof unknown, "unknown %ld", static_cast<long>(static_cast<int32_t>(datum)));
    }
    return text != nullptr ? text : unknown;
}
