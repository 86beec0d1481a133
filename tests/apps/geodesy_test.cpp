#include <tolvin/apps/geodesy.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include <tolvin/kernel/kerneldisdr.h>

using namespace tolvin;

namespace
{

constexpr double kQuarter = std::numbers::pi / 2;

void expectNear(const Vector3 &a, const Vector3 &b, double tolerance)
{
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_NEAR(a[i], b[i], tolerance) << "component " << i;
    }
}

void expectNearMatrix(const Matrix3 &a, const Matrix3 &b, double tolerance)
{
    for (int i = 0; i < 9; ++i)
    {
        EXPECT_NEAR(a[i], b[i], tolerance) << "element " << i;
    }
}

} // namespace

// The axes of WGS 84 (NIMA TR8350.2) and the worked example of EPSG guidance note 7-2 for method 9602.
TEST(Geodesy, GeocentricOfKnownPlaces)
{
    const double exampleLatitude = 53 + 48 / 60.0 + 33.82 / 3600;
    const double exampleLongitude = 2 + 7 / 60.0 + 46.38 / 3600;
    const struct
    {
        Geodetic place;
        Vector3 geocentric;
        double tolerance;
    } cases[] = {
        {{0, 0, 0}, {6378137, 0, 0}, 1e-6},
        {{0, 90, 100}, {0, 6378237, 0}, 1e-6},
        {{-90, 0, 0}, {0, 0, -6356752.3142}, 1e-4},
        {{exampleLatitude, exampleLongitude, 73}, {3771793.968, 140253.342, 5124304.349}, 1e-3},
    };
    for (const auto &c : cases)
    {
        expectNear(geocentricOf(c.place), c.geocentric, c.tolerance);
        const Geodetic back = geodeticOf(geocentricOf(c.place));
        expectNear({back.latitude, back.longitude, back.height}, {c.place.latitude, c.place.longitude, c.place.height},
                   1e-8);
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
    expectNearMatrix(LocalFrame({0, 90, 0}).rotation(), {-1, 0, 0, 0, 0, 1, 0, 1, 0}, 1e-15);
}

TEST(EulerAngles, MatchTheKernelAndComeBack)
{
    for (const double psi : {-3.0, -0.4, 0.0, 2.5})
    {
        for (const double theta : {-kQuarter, -1.570796, -0.7, 0.0, 1.2, kQuarter})
        {
            for (const double phi : {-2.9, 0.0, 0.3, 3.1})
            {
                SCOPED_TRACE(testing::Message() << psi << ' ' << theta << ' ' << phi);
                const Matrix3 rotation = rotationOf({psi, theta, phi});
                vuEntityState report{};
                vuEntity entity{};
                report.orientation[0] = static_cast<float>(psi);
                report.orientation[1] = static_cast<float>(theta);
                report.orientation[2] = static_cast<float>(phi);
                disCalcDRMatrices(&entity, &report);
                Matrix3 kernel;
                std::copy(std::begin(entity.drMatrix), std::end(entity.drMatrix), kernel.begin());
                expectNearMatrix(rotation, kernel, 1e-6);

                const EulerAngles back = eulerAnglesOf(rotation);
                expectNearMatrix(rotationOf(back), rotation, 1e-15);
                if (std::abs(theta) < 1.5)
                {
                    expectNear({back.psi, back.theta, back.phi}, {psi, theta, phi}, 1e-14);
                }
            }
        }
    }
}

// Bodies where the equator meets longitude 0: up is x, east is y, north is z.
TEST(EulerAngles, OfKnownBodies)
{
    const EulerAngles east = eulerAnglesOf({0, 0, -1, 1, 0, 0, 0, -1, 0});
    expectNear({east.psi, east.theta, east.phi}, {kQuarter, 0, -kQuarter}, 1e-15);
    const Matrix3 north = {0, 0, -1, 0, 1, 0, 1, 0, 0}; // nose along the Earth's axis, theta exactly -90 degrees
    const Matrix3 northBanked = {0, 1, 0, 0, 0, 1, 1, 0, 0};
    EXPECT_NEAR(eulerAnglesOf(north).theta, -kQuarter, 1e-15);
    expectNearMatrix(rotationOf(eulerAnglesOf(north)), north, 1e-15);
    expectNearMatrix(rotationOf(eulerAnglesOf(northBanked)), northBanked, 1e-15);
}
