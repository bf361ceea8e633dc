// Analyze operators: analytic truth on uniform and graded trees, the driver's naming, masking and
// replacement rules, thresholds, determinism and cancellation.
#include <gtest/gtest.h>

#include "support/analysis_scene.h"
#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <hexmold/analysis/analyze.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <set>
#include <stdexcept>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D;
using namespace VolumeGL::TileTree3D::Analyze;
using Tavrel::Math::Vec3;
using testscene::Scene;

template <typename Tr, typename T> using VChannel = Channel<Tr, T, Tr::kTileWidth, 0, 0>;

namespace {

template <typename P> class AnalyzeTruth : public ::testing::Test {
};
template <typename Tr, typename S, bool Graded> struct Case {
    using Traits = Tr;
    using Scalar = S;
    static constexpr bool kGraded = Graded;
};
using Cases = ::testing::Types<Case<Traits24, float, false>, Case<Traits24, float, true>,
                               Case<Traits55, float, false>, Case<Traits55, float, true>,
                               Case<Traits24, double, true>, Case<Traits55, double, true>>;
struct CaseNames {
    template <typename C> static std::string GetName(int)
    {
        return std::string(std::is_same_v<typename C::Traits, Traits24> ? "Traits24_"
                                                                        : "Traits55_") +
               (std::is_same_v<typename C::Scalar, float> ? "float_" : "double_") +
               (C::kGraded ? "graded" : "uniform");
    }
};
TYPED_TEST_SUITE(AnalyzeTruth, Cases, CaseNames);

/// Voxel size and sphere radius of the scenes (radius 20 finest voxels).
constexpr float kVoxel = 0.05f;
constexpr double kRadius = 20.0;

template <typename C> Scene<typename C::Traits> sceneFor()
{
    Scene<typename C::Traits> s(kVoxel);
    if (C::kGraded)
        s.buildGradedSphere(kRadius, 1.0);
    else
        s.buildUniformBand(kRadius, 3.0);
    return s;
}

/// Rounding tolerance of a difference quotient: a few ulps of the largest input over the divisor.
template <typename S> double roundingTol(double magnitude, double divisor)
{
    return 16.0 * std::numeric_limits<S>::epsilon() * std::max(1.0, magnitude) / divisor;
}

} // namespace

TYPED_TEST(AnalyzeTruth, GradientOfALinearFieldIsExact)
{
    using Tr = typename TypeParam::Traits;
    using S = typename TypeParam::Scalar;
    auto s = sceneFor<TypeParam>();
    auto f = [](double x, double y, double z) { return 0.5 * x - 1.25 * y + 2.0 * z + 0.3; };
    s.template addScalar<S>("phi", f, false);
    ASSERT_TRUE(analyze<GradientOperator>("phi", "", false, *s.object));
    std::int64_t checked = 0;
    s.template forEachInteriorVoxel<Vec3<S>>(
        "phi_gradient", 1, false, [&](auto const& g, double h, auto const& p) {
            double const tol = roundingTol<S>(
                4.0 * (std::abs(p.x) + std::abs(p.y) + std::abs(p.z) + 3.0 * h) + 1.0, h);
            EXPECT_NEAR(g.x, 0.5, tol);
            EXPECT_NEAR(g.y, -1.25, tol);
            EXPECT_NEAR(g.z, 2.0, tol);
            ++checked;
        });
    EXPECT_GT(checked, 1000);
}

TYPED_TEST(AnalyzeTruth, LaplacianOfAQuadraticFieldIsExact)
{
    using S = typename TypeParam::Scalar;
    auto s = sceneFor<TypeParam>();
    auto f = [](double x, double y, double z) { return x * x + 2 * y * y + 3 * z * z - x + 0.1; };
    s.template addScalar<S>("q", f, false);
    ASSERT_TRUE(analyze<LaplacianOperator>("q", "", false, *s.object));
    std::int64_t checked = 0;
    s.template forEachInteriorVoxel<S>(
        "q_laplacian", 1, false, [&](S const& v, double h, auto const& p) {
            double const mag =
                3.0 * (p.x * p.x + p.y * p.y + p.z * p.z) + 12.0 * h * h + std::abs(p.x) + h + 1.0;
            EXPECT_NEAR(v, 12.0, 4.0 * roundingTol<S>(mag, h * h));
            ++checked;
        });
    EXPECT_GT(checked, 1000);
}

TYPED_TEST(AnalyzeTruth, MeanCurvatureOfASphereIsOneOverTheRadius)
{
    using S = typename TypeParam::Scalar;
    auto s = sceneFor<TypeParam>();
    double const r = kRadius * kVoxel;
    s.template addScalar<S>(
        "d", [r](double x, double y, double z) { return std::sqrt(x * x + y * y + z * z) - r; },
        false);
    ASSERT_TRUE(analyze<MeanCurvatureOperator>("d", "", false, *s.object));
    std::int64_t nearSurface = 0;
    s.template forEachInteriorVoxel<S>(
        "d_gradient", 2, false, [&](S const& v, double h, Vec3<double> const& p) {
            double const phi = std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z) - r;
            if (std::abs(phi) > 2.0 * h || h > 1.01 * kVoxel)
                return;
            // The level set through the voxel has curvature 1 / (r + phi); on the surface, 1 / r.
            EXPECT_NEAR(v, 1.0 / (r + phi), 0.02 / (r + phi))
                << "at distance " << phi / h << " voxels";
            if (std::abs(phi) <= 0.2 * h) {
                EXPECT_NEAR(v, 1.0 / r, 0.02 / r) << "at distance " << phi / h << " voxels";
                ++nearSurface;
            }
        });
    EXPECT_GT(nearSurface, 100);
}

TYPED_TEST(AnalyzeTruth, ClosestPointLiesOnTheSphere)
{
    using S = typename TypeParam::Scalar;
    auto s = sceneFor<TypeParam>();
    double const r = kRadius * kVoxel;
    // Sampled at voxel corners: the operator places its result relative to the corner.
    s.template addScalar<S>(
        "d", [r](double x, double y, double z) { return std::sqrt(x * x + y * y + z * z) - r; },
        true);
    ASSERT_TRUE(analyze<ClosestPointOperator>("d", "", false, *s.object));
    std::int64_t checked = 0;
    s.template forEachInteriorVoxel<Vec3<S>>(
        "d_closest_point", 1, true, [&](auto const& c, double h, Vec3<double> const& p) {
            double const len = std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z);
            if (std::abs(len - r) > 2 * h || h > 1.01 * kVoxel)
                return;
            Vec3<double> const exact{p.x * r / len, p.y * r / len, p.z * r / len};
            double const err =
                std::sqrt((c.x - exact.x) * (c.x - exact.x) + (c.y - exact.y) * (c.y - exact.y) +
                          (c.z - exact.z) * (c.z - exact.z));
            EXPECT_LT(err, 0.05 * kVoxel);
            ++checked;
        });
    EXPECT_GT(checked, 500);
}

TYPED_TEST(AnalyzeTruth, DivergenceOfThePositionIsThree)
{
    using S = typename TypeParam::Scalar;
    auto s = sceneFor<TypeParam>();
    s.template addVector<S>(
        "v",
        [](double x, double y, double z) {
            return Vec3<double>{x, y, z};
        },
        false);
    ASSERT_TRUE(analyze<DivergenceOperator>("v", "", false, *s.object));
    std::int64_t checked = 0;
    s.template forEachInteriorVoxel<S>(
        "v_divergence", 1, false, [&](S const& v, double h, auto const& p) {
            EXPECT_NEAR(
                v, 3.0,
                roundingTol<S>(2.0 * (std::abs(p.x) + std::abs(p.y) + std::abs(p.z)) + h, h));
            ++checked;
        });
    EXPECT_GT(checked, 1000);
}

TYPED_TEST(AnalyzeTruth, CurlOfAGradientIsZero)
{
    using S = typename TypeParam::Scalar;
    auto s = sceneFor<TypeParam>();
    // The gradient of x^2 y + z^3 - y z.
    s.template addVector<S>(
        "g",
        [](double x, double y, double z) {
            return Vec3<double>{2 * x * y, x * x - z, 3 * z * z - y};
        },
        false);
    ASSERT_TRUE(analyze<CurlOperator>("g", "", false, *s.object));
    std::int64_t checked = 0;
    s.template forEachInteriorVoxel<Vec3<S>>(
        "g_curl", 1, false, [&](auto const& c, double h, auto const& p) {
            double const r = std::abs(p.x) + std::abs(p.y) + std::abs(p.z) + h;
            double const tol = roundingTol<S>(4.0 * r * r + 2.0 * r, h);
            EXPECT_NEAR(c.x, 0.0, tol);
            EXPECT_NEAR(c.y, 0.0, tol);
            EXPECT_NEAR(c.z, 0.0, tol);
            ++checked;
        });
    EXPECT_GT(checked, 1000);
}

TYPED_TEST(AnalyzeTruth, MagnitudeAndNormalizeOfKnownVectors)
{
    using S = typename TypeParam::Scalar;
    auto s = sceneFor<TypeParam>();
    s.template addVector<S>(
        "k",
        [](double, double, double) {
            return Vec3<double>{3, 4, 12};
        },
        false);
    ASSERT_TRUE(analyze<MagnitudeOperator>("k", "", false, *s.object));
    ASSERT_TRUE(analyze<NormalizeOperator>("k", "", false, *s.object));
    s.template forEachVoxel<S>("k_magnitude",
                               [&](S const& v, double, auto const&) { EXPECT_EQ(v, S(13)); });
    s.template forEachVoxel<Vec3<S>>("k_normalize", [&](auto const& n, double, auto const&) {
        EXPECT_NEAR(n.x, 3.0 / 13, 2 * std::numeric_limits<S>::epsilon());
        EXPECT_NEAR(n.y, 4.0 / 13, 2 * std::numeric_limits<S>::epsilon());
        EXPECT_NEAR(n.z, 12.0 / 13, 2 * std::numeric_limits<S>::epsilon());
    });
}

// ---- the driver ---------------------------------------------------------------------------------

namespace {

template <typename Tr> class AnalyzeDriver : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(AnalyzeDriver, TraitsTypes, TraitsNames);

template <typename Tr> Scene<Tr> smallScene()
{
    Scene<Tr> s(kVoxel);
    s.buildGradedSphere(8.0, 0.5);
    return s;
}

template <typename Tr> std::set<std::string> names(TVL::Object const& o)
{
    auto const r = o.componentRange();
    return {r.begin(), r.end()};
}

} // namespace

TYPED_TEST(AnalyzeDriver, EmptyPatternSelectsEveryChannelOfASupportedType)
{
    using Tr = TypeParam;
    auto s = smallScene<Tr>();
    auto lin = [](double x, double, double) { return x; };
    s.template addScalar<float>("a", lin, false);
    s.template addScalar<double>("b", lin, false);
    s.template addVector<float>(
        "v",
        [](double, double, double) {
            return Vec3<double>{1, 2, 3};
        },
        false);
    s.template addInt("n");
    ASSERT_TRUE(analyze<GradientOperator>("", "", false, *s.object));
    auto const n = names<Tr>(*s.object);
    EXPECT_TRUE(n.count("a_gradient"));
    EXPECT_TRUE(n.count("b_gradient"));
    EXPECT_FALSE(n.count("v_gradient")) << "vector channels are not gradient inputs";
    EXPECT_FALSE(n.count("n_gradient")) << "int channels are passed over";
    EXPECT_TRUE((s.object->template hasComponentFromName<VChannel<Tr, double3>>)("b_gradient"))
        << "a double input gives a double3 output";
    EXPECT_TRUE((s.object->template hasComponentFromName<VChannel<Tr, float3>>)("a_gradient"));
}

TYPED_TEST(AnalyzeDriver, MaskSelectsStrictlyNegativeVoxels)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    auto s = smallScene<Tr>();
    s.template addScalar<float>(
        "d", [](double x, double y, double z) { return x + 2 * y + 3 * z + 1; }, false);
    // Mask: -1 where i is even, 0 where i == 1, NaN where i == 3, else +1.
    s.template addScalar<float>(
        "m", [](double, double, double) { return 0.0; }, false);
    s.template forEachTileData<float>("m", [](auto& td) {
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    td(i, j, k) =
                        i % 2 == 0 ? -1.0f : (i == 1 ? 0.0f : (i == 3 ? std::nanf("") : 1.0f));
    });
    ASSERT_TRUE(analyze<ClosestPointOperator>("d", "m", false, *s.object));
    ASSERT_TRUE(analyze<LaplacianOperator>("d", "m", false, *s.object));
    std::int64_t computed = 0;
    s.template forEachLocalVoxel<float3>("d_closest_point", [&](float3 const& c, int i) {
        bool const zero = c.x == 0 && c.y == 0 && c.z == 0;
        if (i % 2 == 0)
            computed += !zero;
        else
            EXPECT_TRUE(zero) << "masked-out voxel " << i << " was written";
    });
    EXPECT_GT(computed, 0);
    s.template forEachLocalVoxel<float>("d_laplacian", [&](float v, int i) {
        if (i % 2 != 0)
            EXPECT_EQ(v, 0.0f);
    });
    // A name that is no float channel means no mask: everything is computed.
    ASSERT_TRUE(analyze<ClosestPointOperator>("d", "no_such_mask", false, *s.object));
    std::int64_t zeros = 0;
    s.template forEachLocalVoxel<float3>("d_closest_point", [&](float3 const& c, int) {
        zeros += c.x == 0 && c.y == 0 && c.z == 0;
    });
    EXPECT_LT(zeros, 10);
}

TYPED_TEST(AnalyzeDriver, ConstantFieldGivesZeroWithoutDivisionByZero)
{
    using Tr = TypeParam;
    auto s = smallScene<Tr>();
    s.template addScalar<float>(
        "c", [](double, double, double) { return 2.5; }, false);
    ASSERT_TRUE(analyze<GradientOperator>("c", "", false, *s.object));
    ASSERT_TRUE(analyze<LaplacianOperator>("c", "", false, *s.object));
    // Voxels whose stencil leaves the domain read the default value (zero) there.
    s.template forEachInteriorVoxel<float3>("c_gradient", 1, false,
                                            [](float3 const& g, double, auto const&) {
                                                EXPECT_EQ(g.x, 0.0f);
                                                EXPECT_EQ(g.y, 0.0f);
                                                EXPECT_EQ(g.z, 0.0f);
                                            });
    // Mean curvature replaces the gradient output of the same name.
    ASSERT_TRUE(analyze<MeanCurvatureOperator>("c", "", false, *s.object));
    EXPECT_TRUE((s.object->template hasComponentFromName<VChannel<Tr, float>>)("c_gradient"));
    s.template forEachInteriorVoxel<float>(
        "c_gradient", 2, false, [](float v, double, auto const&) { EXPECT_EQ(v, 0.0f); });
    s.template forEachInteriorVoxel<float>(
        "c_laplacian", 1, false, [](float v, double, auto const&) { EXPECT_EQ(v, 0.0f); });
}

TYPED_TEST(AnalyzeDriver, NormalizeKeepsTinyVectorsAndScalesSmallOnes)
{
    using Tr = TypeParam;
    auto s = smallScene<Tr>();
    for (auto [name, len] :
         {std::pair{"zero", 0.0}, std::pair{"small", 1e-37}, std::pair{"tiny", 1e-39}})
        s.template addVector<float>(
            name,
            [len](double, double, double) {
                return Vec3<double>{len, 0, 0};
            },
            false);
    s.template addVector<double>(
        "dsmall",
        [](double, double, double) {
            return Vec3<double>{1e-15, 0, 0};
        },
        false);
    s.template addVector<double>(
        "dtiny",
        [](double, double, double) {
            return Vec3<double>{1e-16, 0, 0};
        },
        false);
    ASSERT_TRUE(analyze<NormalizeOperator>("*", "", false, *s.object));
    auto first = [&](char const* n) {
        float3 v{-1, -1, -1};
        s.template forEachVoxel<float3>(n, [&](float3 const& x, double, auto const&) { v = x; });
        return v;
    };
    auto firstD = [&](char const* n) {
        double3 v{-1, -1, -1};
        s.template forEachVoxel<double3>(n, [&](double3 const& x, double, auto const&) { v = x; });
        return v;
    };
    EXPECT_EQ(first("zero_normalize").x, 0.0f);
    EXPECT_EQ(first("small_normalize").x, 1.0f);
    EXPECT_EQ(first("tiny_normalize").x, float(1e-39));
    EXPECT_EQ(firstD("dsmall_normalize").x, 1.0);
    EXPECT_EQ(firstD("dtiny_normalize").x, 1e-16) << "the double threshold is the double epsilon";
}

TYPED_TEST(AnalyzeDriver, RepeatedCallsAndReplaceInput)
{
    using Tr = TypeParam;
    auto s = smallScene<Tr>();
    s.template addScalar<float>(
        "density", [](double x, double, double) { return x; }, false);
    ASSERT_TRUE(analyze<GradientOperator>("density", "", false, *s.object));
    auto const once = names<Tr>(*s.object);
    ASSERT_TRUE(analyze<GradientOperator>("density", "", false, *s.object));
    EXPECT_EQ(names<Tr>(*s.object), once) << "a repeated call replaces its own output";
    ASSERT_TRUE(analyze<LaplacianOperator>("density", "", true, *s.object));
    EXPECT_TRUE((s.object->template hasComponentFromName<VChannel<Tr, float>>)("density"));
    s.template forEachInteriorVoxel<float>(
        "density", 1, false, [](float v, double h, auto const& p) {
            EXPECT_NEAR(v, 0.0f, 64 * 1.2e-7 * (std::abs(p.x) + h) / (h * h));
        });
    EXPECT_EQ(names<Tr>(*s.object).size(), once.size());
}

TYPED_TEST(AnalyzeDriver, ChannelsStoredWithAHaloAreAccepted)
{
    using Tr = TypeParam;
    auto s = smallScene<Tr>();
    auto f = [](double x, double y, double z) { return x - y + 2 * z; };
    s.template addScalar<float>("plain", f, false);
    s.template addScalarWithHalo<float>("halo", f);
    ASSERT_TRUE(analyze<GradientOperator>("plain halo", "", false, *s.object));
    auto a = s.template values<float3>("plain_gradient");
    auto b = s.template values<float3>("halo_gradient");
    ASSERT_EQ(a.size(), b.size());
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float3)), 0);
}

TYPED_TEST(AnalyzeDriver, ResultSaysWhetherATreeWasThere)
{
    using Tr = TypeParam;
    auto empty = TVL::createEmptyTVL();
    EXPECT_FALSE(analyze<GradientOperator>("*", "", false, *empty));
    auto s = smallScene<Tr>();
    EXPECT_TRUE(analyze<GradientOperator>("no_match", "", false, *s.object));
    EXPECT_TRUE(names<Tr>(*s.object).count(Tavrel::Geometry::sVoxelTileTree));
}

TYPED_TEST(AnalyzeDriver, OneAndAllThreadsGiveTheSameBits)
{
    using Tr = TypeParam;
    auto s = smallScene<Tr>();
    s.template addScalar<float>(
        "d", [](double x, double y, double z) { return std::sin(7 * x) * y + z * z; }, false);
    std::vector<float> one, all;
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        ASSERT_TRUE(analyze<MeanCurvatureOperator>("d", "", false, *s.object));
        one = s.template values<float>("d_gradient");
    }
    ASSERT_TRUE(analyze<MeanCurvatureOperator>("d", "", false, *s.object));
    all = s.template values<float>("d_gradient");
    ASSERT_EQ(one.size(), all.size());
    EXPECT_EQ(std::memcmp(one.data(), all.data(), one.size() * sizeof(float)), 0);
}

namespace {
std::atomic<bool> gCancelAtCompute{false};
void cancelAfterPrecompute(Quillon::StringView name, double)
{
    if (gCancelAtCompute && name == "Volume::analyze_volume.precompute_tile_halos")
        Quillon::requestJobCancellation();
}
} // namespace

TYPED_TEST(AnalyzeDriver, CancellationThrowsAndLeavesTheObjectWhole)
{
    using Tr = TypeParam;
    auto s = smallScene<Tr>();
    s.template addScalar<float>(
        "d", [](double x, double, double) { return x; }, false);
    s.template addScalar<float>(
        "d_gradient", [](double, double, double) { return 7.0; }, false);
    std::map<std::string, std::string> before;
    for (auto const& n : s.object->componentRange())
        before[n] = typeid(*s.object->component(n)).name();
    Quillon::clearJobCancellation();
    gCancelAtCompute = true;
    CoreGL::Logger::setTimerObserver(&cancelAfterPrecompute);
    for (bool replace : {false, true}) {
        try {
            analyze<GradientOperator>("d", "", replace, *s.object);
            ADD_FAILURE() << "no exception";
        } catch (std::runtime_error const& e) {
            EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
        }
        Quillon::clearJobCancellation();
        std::map<std::string, std::string> after;
        for (auto const& n : s.object->componentRange())
            after[n] = typeid(*s.object->component(n)).name();
        EXPECT_EQ(after, before);
    }
    CoreGL::Logger::setTimerObserver(nullptr);
    gCancelAtCompute = false;
    s.template forEachVoxel<float>("d_gradient",
                                   [](float v, double, auto const&) { EXPECT_EQ(v, 7.0f); });
}

TEST(AnalyzeExports, EveryOperatorIsExported)
{
    std::vector<void const*> const all = {
        reinterpret_cast<void const*>(&analyze<GradientOperator>),
        reinterpret_cast<void const*>(&analyze<LaplacianOperator>),
        reinterpret_cast<void const*>(&analyze<DivergenceOperator>),
        reinterpret_cast<void const*>(&analyze<CurlOperator>),
        reinterpret_cast<void const*>(&analyze<MeanCurvatureOperator>),
        reinterpret_cast<void const*>(&analyze<ClosestPointOperator>),
        reinterpret_cast<void const*>(&analyze<MagnitudeOperator>),
        reinterpret_cast<void const*>(&analyze<NormalizeOperator>),
    };
    for (void const* p : all)
        EXPECT_NE(p, nullptr);
}
