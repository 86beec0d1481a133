#include <tolvin/apps/geodesy.h>
#include <tolvin/kernel/kerneldisdr.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <tuple>

#include <gtest/gtest.h>

using namespace tolvin;

namespace
{

constexpr double kQuarter = std::numbers::pi / 2;

template<std::size_t N>
void expectNear(const std::array<double, N> &a, const std::array<double, N> &b, double tolerance)
{
    for (std::size_t i = 0; i < N; ++i)
    {
        EXPECT_NEAR(a[i], b[i], tolerance) << "element " << i;
    }
}

} // namespace

// The axes of WGS 84 (NIMA TR8350.2) and the worked example of EPSG guidance note 7-2 for method 9602.
TEST(Geodesy, GeocentricOfKnownPlaces)
{
    const Geodetic example = {53 + 48 / 60.0 + 33.82 / 3600, 2 + 7 / 60.0 + 46.38 / 3600, 73};
    const std::tuple<Geodetic, Vector3, double> cases[] = {{{0, 0, 0}, {6378137, 0, 0}, 1e-6},
                                                           {{0, 90, 100}, {0, 6378237, 0}, 1e-6},
                                                           {{-90, 0, 0}, {0, 0, -6356752.3142}, 1e-4},
                                                           {example, {3771793.968, 140253.342, 5124304.349}, 1e-3}};
    for (const auto &[place, geocentric, tolerance] : cases)
    {
        expectNear(geocentricOf(place), geocentric, tolerance);
        const Geodetic back = geodeticOf(geocentricOf(place));
        expectNear(Vector3{back.latitude, back.longitude, back.height},
                   Vector3{place.latitude, place.longitude, place.height}, 1e-8);
    }
}

// The worked example of EPSG guidance note 7-2 for method 9836.
TEST(Geodesy, LocalFrame)
{
    const LocalFrame frame({55, 5, 200});
    const Vector3 geocentric = {3771793.968, 140253.342, 5124304.349};
    expectNear(frame.toLocal(geocentric), {-189013.869, -128642.040, -4220.171}, 1e-3);
    expectNear(frame.toGeocentric(frame.toLocal(geocentric)), geocentric, 1e-8);
    // At longitude 90 on the equator east is -x, north is z and up is y.
    expectNear(LocalFrame({0, 90, 0}).rotation(), {-1, 0, 0, 0, 0, 1, 0, 1, 0}, 1e-15);
}

TEST(EulerAngles, MatchTheKernelAndComeBack)
{
    for (const EulerAngles &angles : {EulerAngles{-3, -kQuarter, 2},
                                      {-0.4, -1.570796, -2.9},
                                      {2.5, -0.7, 0.3},
                                      {0, 0, 0},
                                      {-3, 1.2, 3.1},
                                      {1, kQuarter, 0.3}})
    {
        const Matrix3 rotation = rotationOf(angles);
        vuEntityState report{};
        vuEntity entity{};
        report.orientation[0] = static_cast<float>(angles.psi);
        report.orientation[1] = static_cast<float>(angles.theta);
        report.orientation[2] = static_cast<float>(angles.phi);
        disCalcDRMatrices(&entity, &report);
        Matrix3 kernel;
        std::ranges::copy(entity.drMatrix, kernel.begin());
        expectNear(rotation, kernel, 1e-6);
        const EulerAngles back = eulerAnglesOf(rotation);
        expectNear(rotationOf(back), rotation, 1e-15);
        if (std::abs(angles.theta) < 1.5)
        {
            expectNear(Vector3{back.psi, back.theta, back.phi}, Vector3{angles.psi, angles.theta, angles.phi}, 1e-14);
        }
    }
}

// Bodies where the equator meets longitude 0: up is x, east is y, north is z.
TEST(EulerAngles, OfKnownBodies)
{
    const EulerAngles east = eulerAnglesOf({0, 0, -1, 1, 0, 0, 0, -1, 0});
    expectNear(Vector3{east.psi, east.theta, east.phi}, Vector3{kQuarter, 0, -kQuarter}, 1e-15);
    // Noses along the Earth's axis, theta exactly -90 degrees.
    for (const Matrix3 &north : {Matrix3{0, 0, -1, 0, 1, 0, 1, 0, 0}, Matrix3{0, 1, 0, 0, 0, 1, 1, 0, 0}})
    {
        EXPECT_NEAR(eulerAnglesOf(north).theta, -kQuarter, 1e-15);
        expectNear(rotationOf(eulerAnglesOf(north)), north, 1e-15);
    }
}
