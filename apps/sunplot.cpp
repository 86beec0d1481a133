#include "sunplot.h"

#include "outputfile.h"
#include "svg.h"
#include "timescale.h"

#include <tolvin/kernel/kernelvutime.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace tolvin
{

namespace
{

constexpr double kWidth = 1000.0;
constexpr double kHeight = 664.0;

struct Pixel
{
    double x;
    double y;
};

// A marked point of a path.
struct Mark
{
    Pixel at;
    Pixel label; // its middle
    std::string text;
};

// Unit vector at right angles to the way from one to the other.
Pixel normalOf(const Pixel &from, const Pixel &to)
{
    const double length = std::max(std::hypot(to.x - from.x, to.y - from.y), 1e-9);
    return {(to.y - from.y) / length, (from.x - to.x) / length};
}

void drawPath(std::FILE *out, const std::vector<Pixel> &path, const char *attributes)
{
    char command = 'M';
    std::fprintf(out, "<path %s d='", attributes);
    for (const Pixel &p : path)
    {
        std::fprintf(out, "%c%.1f %.1f", command, p.x, p.y);
        command = 'L';
    }
    std::fputs("'/>\n", out);
}

void drawText(std::FILE *out, const Pixel &at, const char *attributes, const std::string &text)
{
    std::fprintf(out, "<text x='%.1f' y='%.1f' %s>%s</text>\n", at.x, at.y, attributes, escaped(text).c_str());
}

void drawMarks(std::FILE *out, const std::vector<Mark> &marks)
{
    std::fputs("<g font-size='12' text-anchor='middle' fill='#1f6fb4'>\n", out);
    for (const Mark &mark : marks)
    {
        std::fprintf(out, "<circle cx='%.1f' cy='%.1f' r='3'/>\n", mark.at.x, mark.at.y);
        drawText(out, {mark.label.x, mark.label.y + 4.0},
                 "fill='#222' stroke='white' stroke-opacity='0.8' stroke-width='3' paint-order='stroke'", mark.text);
    }
    std::fputs("</g>\n", out);
}

void drawSun(std::FILE *out, const Pixel &at, bool filled)
{
    std::fprintf(out, "<circle cx='%.1f' cy='%.1f' r='8' fill='%s' stroke='%s' stroke-width='2'/>\n", at.x, at.y,
                 filled ? "#e4572e" : "white", filled ? "white" : "#e4572e");
}

// The sky, zenith in the middle, equal steps of elevation, north up and east to the right as on a map.
namespace sky
{

constexpr Pixel kZenith = {262.0, 352.0};
constexpr double kRadius = 220.0; // of the horizon
constexpr int kStepsPerHour = 12;
constexpr double kLabelOffset = 17.0;

Pixel pixelAt(double azimuth, double elevation)
{
    const double radius = (0.5 - elevation / kPi) * 2.0 * kRadius;
    return {kZenith.x + radius * std::sin(azimuth), kZenith.y - radius * std::cos(azimuth)};
}

Pixel pixelOf(const Horizontal &direction)
{
    return pixelAt(direction.azimuth, direction.elevation);
}

// Draws those parts of a path that are up. A step beyond the horizon belongs to them, as the sky's edge cuts it; far
// below, close to the nadir, the way from step to step would lead across the sky.
void drawAbove(std::FILE *out, const std::vector<Horizontal> &path, const char *attributes)
{
    constexpr double kBelow = -3.0 * kDegree; // more than a step
    std::vector<Pixel> part;
    for (const Horizontal &direction : path)
    {
        if (direction.elevation >= kBelow)
        {
            part.push_back(pixelOf(direction));
            continue;
        }
        if (!part.empty())
        {
            drawPath(out, part, attributes);
        }
        part.clear();
    }
    if (!part.empty())
    {
        drawPath(out, part, attributes);
    }
}

void drawGrid(std::FILE *out)
{
    std::fprintf(
        out,
        "<clipPath id='sky'><circle cx='%.1f' cy='%.1f' r='%.1f'/></clipPath>\n"
        "<circle cx='%.1f' cy='%.1f' r='%.1f' fill='#f4f8fc' stroke='#444'/>\n<g fill='none' stroke='#d8dde3'>\n",
        kZenith.x, kZenith.y, kRadius, kZenith.x, kZenith.y, kRadius);
    for (const double part : {1.0, 2.0})
    {
        std::fprintf(out, "<circle cx='%.1f' cy='%.1f' r='%.1f'/>\n", kZenith.x, kZenith.y, kRadius * part / 3.0);
    }
    for (int degrees = 0; degrees < 360; degrees += 30)
    {
        drawPath(out, {pixelAt(degrees * kDegree, 60.0 * kDegree), pixelAt(degrees * kDegree, 0.0)}, "");
    }
    std::fputs("</g>\n<g text-anchor='middle' fill='#444'>\n", out);
    for (int degrees = 0; degrees < 360; degrees += 30)
    {
        const Pixel at = pixelAt(degrees * kDegree, -8.0 * kDegree);
        const bool cardinal = degrees % 90 == 0;
        drawText(out, {at.x, at.y + 5.0}, cardinal ? "font-size='18' fill='#222'" : "font-size='12'",
                 cardinal ? std::string(1, "NESW"[degrees / 90]) : std::to_string(degrees) + "°");
    }
    std::fputs("</g>\n", out);
}

void drawElevations(std::FILE *out, const ApparentSun &sun, const Place &place)
{
    // On the side where the sun is not, or only low.
    const double azimuth = (place.latitude * kDegree >= sun.declination ? 15.0 : 165.0) * kDegree;
    for (const int degrees : {30, 60})
    {
        const Pixel at = pixelAt(azimuth, degrees * kDegree);
        drawText(
            out, {at.x, at.y + 4.0},
            "font-size='11' text-anchor='middle' fill='#777' stroke='#f4f8fc' stroke-width='4' paint-order='stroke'",
            std::to_string(degrees) + "°");
    }
}

// Paths of the solstices and equinoxes: at these the declination is the obliquity, or 0.
void drawSeasons(std::FILE *out, const Place &place, double obliquityNow)
{
    const char *const dashes[] = {"stroke-dasharray='2 4'", "stroke-dasharray='8 4'", ""};
    std::fputs("<g fill='none' stroke='#9aa3ad' stroke-width='1.4'>\n", out);
    for (int season = -1; season <= 1; ++season)
    {
        std::vector<Horizontal> path;
        for (int degrees = -180; degrees <= 180; degrees += 2)
        {
            path.push_back(horizontalOf(degrees * kDegree, season * obliquityNow, place.latitude * kDegree));
        }
        drawAbove(out, path, dashes[season + 1]);
    }
    std::fputs("</g>\n", out);
}

// On the outer side of the path, where the paths of the seasons are further apart, but not across the horizon.
Pixel labelAt(const std::vector<Pixel> &path, std::size_t step)
{
    const Pixel at = path[step];
    const Pixel normal = normalOf(path[step - 1], path[step + 1]);
    const double outwards = normal.x * (at.x - kZenith.x) + normal.y * (at.y - kZenith.y) < 0.0 ? -1.0 : 1.0;
    const auto beside = [&](double side) {
        return Pixel{at.x + side * normal.x * kLabelOffset, at.y + side * normal.y * kLabelOffset};
    };
    const Pixel outer = beside(outwards);
    const bool inside = std::hypot(outer.x - kZenith.x, outer.y - kZenith.y) < kRadius - kLabelOffset / 2.0;
    return inside ? outer : beside(-outwards);
}

void drawDay(std::FILE *out, double start, const Place &place)
{
    constexpr int kSteps = 24 * kStepsPerHour;
    std::vector<Horizontal> directions;
    std::vector<Pixel> path; // with one step more on either side
    std::vector<std::size_t> fullHours;
    for (int step = -1; step <= kSteps + 1; ++step)
    {
        const double date = start + static_cast<double>(step) / kSteps;
        const Horizontal direction = horizontal(date, apparentSun(date), place);
        if (step >= 0 && step < kSteps && step % kStepsPerHour == 0 && direction.elevation >= kRiseElevation)
        {
            fullHours.push_back(path.size());
        }
        path.push_back(pixelOf(direction));
        directions.push_back(direction);
    }
    std::vector<Mark> marks;
    marks.reserve(fullHours.size());
    for (const std::size_t step : fullHours)
    {
        marks.push_back({path[step], labelAt(path, step), std::to_string((step - 1) / kStepsPerHour)});
    }
    const std::vector<Horizontal> day(directions.begin() + 1, directions.end() - 1);
    drawAbove(out, day,
              "fill='none' stroke='#1f6fb4' stroke-width='2.5' stroke-linejoin='round' clip-path='url(#sky)'");
    drawMarks(out, marks);
}

void drawNow(std::FILE *out, double date, const ApparentSun &sun, const Place &place)
{
    Horizontal direction = horizontal(date, sun, place);
    const bool up = direction.elevation >= kRiseElevation;
    direction.elevation = std::max(direction.elevation, 0.0);
    drawSun(out, pixelOf(direction), up);
}

void draw(std::FILE *out, double date, double zone, const ApparentSun &sun, const Place &place)
{
    drawGrid(out);
    std::fputs("<g clip-path='url(#sky)'>\n", out);
    drawSeasons(out, place, sun.trueObliquity);
    std::fputs("</g>\n", out);
    drawElevations(out, sun, place);
    drawDay(out, midnight(date, zone), place);
    drawNow(out, date, sun, place);
}

} // namespace sky

// Equation of time, minutes, against declination, degrees.
namespace analemma
{

constexpr double kLeft = 600.0;
constexpr double kTop = 112.0;
constexpr double kExtentX = 368.0;
constexpr double kExtentY = 460.0;
constexpr double kMinutes = 25.0; // on either side
constexpr double kDegrees = 28.0;

struct Point
{
    double minutes;
    double degrees;
};

Point pointOf(double date)
{
    const ApparentSun sun = apparentSun(date);
    return {equationOfTime(date, sun) / kDegree * 4.0, sun.declination / kDegree};
}

Pixel pixelOf(const Point &point)
{
    return {kLeft + (point.minutes / kMinutes + 1.0) * kExtentX / 2.0,
            kTop + (1.0 - point.degrees / kDegrees) * kExtentY / 2.0};
}

void drawGrid(std::FILE *out)
{
    std::fputs("<g stroke='#d8dde3' font-size='12' fill='#444'>\n", out);
    for (int minutes = -20; minutes <= 20; minutes += 5)
    {
        const Pixel at = pixelOf({static_cast<double>(minutes), -kDegrees});
        drawPath(out, {at, pixelOf({static_cast<double>(minutes), kDegrees})}, minutes == 0 ? "stroke='#9aa3ad'" : "");
        char text[16];
        std::snprintf(text, sizeof text, minutes == 0 ? "%d" : "%+d", minutes);
        drawText(out, {at.x, at.y + 18.0}, "text-anchor='middle' stroke='none'", text);
    }
    for (int degrees = -25; degrees <= 25; degrees += 5)
    {
        const Pixel at = pixelOf({-kMinutes, static_cast<double>(degrees)});
        drawPath(out, {at, pixelOf({kMinutes, static_cast<double>(degrees)})}, degrees == 0 ? "stroke='#9aa3ad'" : "");
        char text[16];
        std::snprintf(text, sizeof text, degrees == 0 ? "%d°" : "%+d°", degrees);
        drawText(out, {at.x - 8.0, at.y + 4.0}, "text-anchor='end' stroke='none'", text);
    }
    std::fprintf(out, "</g>\n<rect x='%.1f' y='%.1f' width='%.1f' height='%.1f' fill='none' stroke='#444'/>\n", kLeft,
                 kTop, kExtentX, kExtentY);
    drawText(out, {kLeft + kExtentX / 2.0, kTop + kExtentY + 40.0}, "font-size='14' text-anchor='middle' fill='#222'",
             "equation of time, minutes (sundial fast to the right)");
    std::fprintf(out,
                 "<text transform='translate(%.1f %.1f) rotate(-90)' font-size='14' text-anchor='middle' fill='#222'>"
                 "declination</text>\n",
                 kLeft - 50.0, kTop + kExtentY / 2.0);
}

// The equation of time that goes with that day's declination on the other branch of the figure.
double minutesOpposite(const std::vector<Point> &year, std::size_t day)
{
    constexpr std::size_t kApart = 15; // days, to leave out neighbours on the same branch
    double nearest = HUGE_VAL;
    double minutes = 0.0;
    for (std::size_t i = kApart; i + kApart < year.size(); ++i)
    {
        const Point &other = year[(day + i) % year.size()];
        const double distance = std::abs(other.degrees - year[day].degrees);
        if (distance < nearest)
        {
            nearest = distance;
            minutes = other.minutes;
        }
    }
    return minutes;
}

// On the side away from the other branch.
Pixel labelAt(const std::vector<Point> &year, std::size_t day)
{
    const Pixel at = pixelOf(year[day]);
    const Pixel normal =
        normalOf(pixelOf(year[(day + year.size() - 1) % year.size()]), pixelOf(year[(day + 1) % year.size()]));
    const bool leftwards = year[day].minutes < minutesOpposite(year, day);
    const double sign = leftwards == (normal.x < 0.0) ? 1.0 : -1.0;
    return {at.x + sign * normal.x * 22.0, at.y + sign * normal.y * 16.0};
}

void drawYear(std::FILE *out, double date, double zone)
{
    double day;
    std::uint16_t month;
    std::int32_t year;
    vutimeReverseMJD(date + zone, &day, &month, &year);
    const double timeOfDay = date - midnight(date, zone);
    const double first = vutimeGetMJD(1.0, 1, year);
    const double next = vutimeGetMJD(1.0, 1, year == -1 ? 1 : year + 1);

    std::vector<Point> points;
    std::vector<Pixel> path;
    const int days = static_cast<int>(next - first);
    for (int i = 0; i < days; ++i)
    {
        points.push_back(pointOf(first + i - zone + timeOfDay));
        path.push_back(pixelOf(points.back()));
    }
    path.push_back(path.front());
    drawPath(out, path, "fill='none' stroke='#1f6fb4' stroke-width='2.5' stroke-linejoin='round'");

    static const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::vector<Mark> marks;
    for (std::uint16_t m = 1; m <= 12; ++m)
    {
        const auto index = static_cast<std::size_t>(vutimeGetMJD(1.0, m, year) - first);
        marks.push_back({path[index], labelAt(points, index), kMonths[m - 1]});
    }
    drawMarks(out, marks);
}

void draw(std::FILE *out, double date, double zone)
{
    drawGrid(out);
    drawYear(out, date, zone);
    drawSun(out, pixelOf(pointOf(date)), true);
}

} // namespace analemma

std::string placeText(const Place &place)
{
    char text[80];
    std::snprintf(text, sizeof text, "%.4f° %c, %.4f° %c", std::abs(place.latitude), place.latitude < 0.0 ? 'S' : 'N',
                  std::abs(place.longitude), place.longitude < 0.0 ? 'W' : 'E');
    return text;
}

void drawTitles(std::FILE *out, double date, double zone, bool up, const Place &place)
{
    drawText(out, {42.0, 38.0}, "font-size='20' fill='#222'",
             "The sun at " + placeText(place) + " on " + dateText(date + zone) + " " + zoneText(date, zone));
    drawText(out, {42.0, 70.0}, "font-size='14' fill='#222'",
             "The day: dots at the full hours of " + zoneText(date, zone) +
                 (up ? "" : "; the sun is below the horizon"));
    drawText(out, {analemma::kLeft, 70.0}, "font-size='14' fill='#222'", "The year: dots on the first of each month");
}

void drawLegend(std::FILE *out)
{
    std::fputs("<g font-size='14' fill='#222'>\n", out);
    double x = 42.0;
    const double y = 640.0;
    const struct
    {
        const char *dashes;
        const char *text;
        double width;
    } seasons[] = {{"", "northern solstice", 190.0},
                   {"stroke-dasharray='8 4'", "equinoxes", 140.0},
                   {"stroke-dasharray='2 4'", "southern solstice", 0.0}};
    for (const auto &season : seasons)
    {
        std::fprintf(
            out, "<path d='M%.1f %.1fh36' stroke='#9aa3ad' stroke-width='1.8' %s/><text x='%.1f' y='%.1f'>%s</text>\n",
            x, y - 5.0, season.dashes, x + 44.0, y, season.text);
        x += season.width;
    }
    std::fputs("</g>\n", out);
    drawSun(out, {analemma::kLeft + 8.0, y - 5.0}, true);
    drawText(out, {analemma::kLeft + 24.0, y}, "font-size='14' fill='#222'", "the sun at the given time");
}

} // namespace

void writeSunPlot(const std::string &file, double date, double zone, const Place &place)
{
    OutputFile picture(file);
    std::FILE *const out = picture.stream();
    const ApparentSun sun = apparentSun(date);
    beginSvg(out, kWidth, kHeight);
    drawTitles(out, date, zone, horizontal(date, sun, place).elevation >= kRiseElevation, place);
    sky::draw(out, date, zone, sun, place);
    analemma::draw(out, date, zone);
    drawLegend(out);
    endSvg(out);
    picture.complete();
}

} // namespace tolvin
