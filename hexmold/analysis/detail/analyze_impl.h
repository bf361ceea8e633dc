/// @file  analysis/detail/analyze_impl.h
/// @brief The analyze driver: channel selection, the per-tree stages with their timers, the
///        per-channel process step and the per-tile function. Included by the operator shards.
#pragma once
#include <cstdint>
#include <exception>
#include <hexmold/analysis/analyze.h>
#include <hexmold/analysis/detail/stencil_ops.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/channel_parser.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/scope_guard.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/visitor.h>
#include <type_traits>
#include <utility>
#include <vector>

namespace VolumeGL::TileTree3D::Analyze::detail {

using namespace TVL::TileTree3D;
using Quillon::String;

/// What an operator reads and writes, the word of its output name and its kernel.
template <typename Op> struct OpTraits;
template <> struct OpTraits<GradientOperator> {
    static constexpr bool kVectorInput = false;
    template <typename S> using Out = Vec3<S>;
    using Kernel = Gradient;
    static constexpr char const* kWord = "gradient";
};
template <> struct OpTraits<LaplacianOperator> {
    static constexpr bool kVectorInput = false;
    template <typename S> using Out = S;
    using Kernel = Laplacian;
    static constexpr char const* kWord = "laplacian";
};
template <> struct OpTraits<MeanCurvatureOperator> {
    static constexpr bool kVectorInput = false;
    template <typename S> using Out = S;
    using Kernel = MeanCurvature;
    static constexpr char const* kWord = "gradient"; // kept: named like a gradient output
};
template <> struct OpTraits<ClosestPointOperator> {
    static constexpr bool kVectorInput = false;
    template <typename S> using Out = Vec3<S>;
    using Kernel = ClosestPoint;
    static constexpr char const* kWord = "closest_point";
};
template <> struct OpTraits<DivergenceOperator> {
    static constexpr bool kVectorInput = true;
    template <typename S> using Out = S;
    using Kernel = Divergence;
    static constexpr char const* kWord = "divergence";
};
template <> struct OpTraits<CurlOperator> {
    static constexpr bool kVectorInput = true;
    template <typename S> using Out = Vec3<S>;
    using Kernel = Curl;
    static constexpr char const* kWord = "curl";
};
template <> struct OpTraits<MagnitudeOperator> {
    static constexpr bool kVectorInput = true;
    template <typename S> using Out = S;
    using Kernel = Magnitude;
    static constexpr char const* kWord = "magnitude";
};
template <> struct OpTraits<NormalizeOperator> {
    static constexpr bool kVectorInput = true;
    template <typename S> using Out = Vec3<S>;
    using Kernel = Normalize;
    static constexpr char const* kWord = "normalize";
};

template <typename Op, typename S>
using InputOf = std::conditional_t<OpTraits<Op>::kVectorInput, Vec3<S>, S>;
template <typename Op, typename S> using OutputOf = typename OpTraits<Op>::template Out<S>;

/// World size of the voxels of a tile whose voxels are @p w finest voxels wide: single precision
/// from the integer width, double precision from the integer width and the float voxel size.
template <typename S> inline S voxelWorldSize(std::int64_t w, float voxelSize)
{
    return static_cast<S>(w) * static_cast<S>(voxelSize);
}

/// The per-tile function of one operator, precision and input form. Its scratch block and
/// accessor are per-worker members: the traversal copies the function into each worker.
template <typename Op, typename Traits, typename S, int Hin> class TileFunction {
public:
    static constexpr int W = Traits::kTileWidth;
    static constexpr int E = W + 2;
    using In = InputOf<Op, S>;
    using Out = OutputOf<Op, S>;
    using InChannel = Channel<Traits, In, W, Hin, 0>;
    using OutChannel = Channel<Traits, Out, W, 0, 0>;
    using MaskChannel = Channel<Traits, float, W, 0, 0>;

    TileFunction(Container<Traits> const& container, InChannel const& input, OutChannel& output,
                 MaskChannel const* mask)
        : mInput(&input), mOutput(&output), mMask(mask), mVoxelSize(container.voxelSize()),
          mScratch(std::size_t(E) * E * E), mAccessor(container.tileAccessor())
    {
    }

    void operator()(Tile<Traits> const& tile)
    {
        S const h = voxelWorldSize<S>(tile.voxelDataWidth(), mVoxelSize);
        TileData<Out, W, 0, 0> out = mOutput->tileData(tile.treeIndex());
        if (out.size() != std::size_t(W) * W * W)
            return;
        ConstTileData<float, W, 0, 0> mask;
        if (mMask) {
            mask = mMask->tileData(tile.treeIndex());
            if (mask.size() != std::size_t(W) * W * W)
                return; // no mask data: nothing selected
        }
        // Faces and edges for the in-plane stencil of the mean curvature, faces alone for the
        // axis stencils of the others (which never read an edge, so the result is the same and
        // the edges' interpolation is saved). Across a resolution jump the rim is interpolated
        // from the coarse voxels at the rim's own centres, so that the central differences stay
        // consistent there (the covering coarse voxel alone can sit 2.5 voxels away for a ratio
        // of 5, which turns a gradient into zero).
        // The mean curvature, whose second differences divide the rim's error by h^2 and whose
        // normalisation turns that error into one relative to the curvature itself, takes the
        // tricubic rim (O(H^4 / h^2) there). The Laplacian keeps the trilinear one, whose error
        // at a jump is bounded (a quadratic's Laplacian within (H / h)^2 (1 + r^2) / 4 per axis
        // coefficient) at a third of the cost on trees of small tiles.
        constexpr bool kCurvature = std::is_same_v<Op, MeanCurvatureOperator>;
        constexpr int kParts = kCurvature ? kHaloTypeFacesAndEdges : kHaloTypeBase;
        constexpr auto kType =
            HaloType(kParts | (kCurvature ? kHaloTypeCubicJumps : kHaloTypeTrilinearJumps));
        setHaloTile<Traits, In, Hin, 1, 0, 0>(tile.treeIndex(), *mInput, kHaloModeGeneral, kType,
                                              mAccessor, mScratch, In{}, 1.0f, kVoxelOffsetCenter);
        In const* block = mScratch.data();
        Out* o = out.data();
        float const* m = mMask ? mask.data() : nullptr;
        std::int64_t const w = tile.voxelDataWidth();
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    int const n = i + W * (j + W * k);
                    if (m && !(0.0f > m[n]))
                        continue; // strictly negative mask only; NaN skips
                    In const* c = block + (i + 1) + E * ((j + 1) + E * (k + 1));
                    auto s = [c](int a, int b, int d) -> In const& {
                        return c[a + E * (b + E * d)];
                    };
                    if constexpr (std::is_same_v<Op, ClosestPointOperator>) {
                        Vec3<S> const position{
                            static_cast<S>(tile.ti() + i * w) * static_cast<S>(mVoxelSize),
                            static_cast<S>(tile.tj() + j * w) * static_cast<S>(mVoxelSize),
                            static_cast<S>(tile.tk() + k * w) * static_cast<S>(mVoxelSize)};
                        o[n] = ClosestPoint::apply(s, position);
                    } else {
                        o[n] = OpTraits<Op>::Kernel::apply(s, h);
                    }
                }
    }

private:
    InChannel const* mInput;
    OutChannel* mOutput;
    MaskChannel const* mMask;
    float mVoxelSize;
    TileData<In, W, 1, 0> mScratch;
    typename Container<Traits>::ConstTileAccessor mAccessor;
};

/// Timer names, built once per call.
struct Stages {
    String process, removeComponent, createOutputChannel, compute, precomputeNeighbors,
        precomputeHalos;
    Stages()
    {
        String const prefix = "Volume::analyze_volume";
        process = prefix + ".process";
        removeComponent = prefix + ".remove_component";
        createOutputChannel = prefix + ".create_output_channel";
        compute = prefix + ".compute";
        precomputeNeighbors = prefix + ".precompute_tile_neighbors";
        precomputeHalos = prefix + ".precompute_tile_halos";
    }
};

/// The process step for one input channel: name, replace, create, compute.
template <typename Op, typename Traits, typename S, int Hin>
void processChannel(
    TVL::Object& object, Container<Traits> const& container, VoxelTopology<Traits> const& topology,
    Quillon::Ptr<Channel<Traits, InputOf<Op, S>, Traits::kTileWidth, Hin, 0>> const& input,
    Channel<Traits, float, Traits::kTileWidth, 0, 0> const* mask, bool replaceInput,
    Stages const& stages)
{
    using Out = OutputOf<Op, S>;
    using OutChannel = Channel<Traits, Out, Traits::kTileWidth, 0, 0>;
    auto const processTimer = CoreGL::Logger::timer(stages.process, nullptr);

    String const& inputName = input->name();
    String const outputName = replaceInput        ? inputName
                              : inputName.empty() ? String(OpTraits<Op>::kWord)
                                                  : inputName + "_" + OpTraits<Op>::kWord;

    // Whatever held the output's name goes, so that a repeated call replaces its earlier result.
    // Should the computation not finish, it comes back in place of the partial output.
    Quillon::Ptr<TVL::Component> const previous = object.component(outputName);
    {
        auto const t = CoreGL::Logger::timer(stages.removeComponent, nullptr);
        object.removeComponent(outputName, &topology);
    }
    {
        auto const t = CoreGL::Logger::timer(stages.createOutputChannel, nullptr);
        Command::createChannel<Out, Traits::kRatio, Traits::kTileWidth, Traits::kTileWidth, 0>(
            outputName, topology, object, Out{}, kDataElementInitializerDefaultValue, 0,
            Traits::kMaxDepth);
    }
    TVL::ComponentGuard<OutChannel> output(object, outputName);
    auto restore = TVL::onScopeExit([&] {
        output.release();
        if (previous)
            object.addComponent(previous);
    });
    if (output) {
        auto const t = CoreGL::Logger::timer(stages.compute, nullptr);
        TileFunction<Op, Traits, S, Hin> const perTile(container, *input, *output, mask);
        auto const none = [](auto const&...) {};
        container.traverse(none, none, perTile, none, NoVoxelVisit{}, kTraversalUnordered, kNoTile,
                           0, Traits::kMaxDepth, 1, true, 0, Traits::kRatio, false,
                           Traits::kMaxDepth - 3);
    }
    restore.dismiss();
}

/// The channel step: the input's form in the order float without halo, float with halo, double
/// without halo, double with halo; names of other types are passed over.
template <typename Op, typename Traits>
void channelStep(TVL::Object& object, String const& name, Container<Traits> const& container,
                 VoxelTopology<Traits> const& topology,
                 Channel<Traits, float, Traits::kTileWidth, 0, 0> const* mask, bool replaceInput,
                 Stages const& stages)
{
    constexpr int W = Traits::kTileWidth;
    auto forPrecision = [&]<typename S>(S*) {
        using In = InputOf<Op, S>;
        if (auto plain = object.component<Channel<Traits, In, W, 0, 0>>(name))
            processChannel<Op, Traits, S, 0>(object, container, topology, plain, mask, replaceInput,
                                             stages);
        else if (auto halo = object.component<Channel<Traits, In, W, 1, 0>>(name))
            processChannel<Op, Traits, S, 1>(object, container, topology, halo, mask, replaceInput,
                                             stages);
    };
    forPrecision(static_cast<float*>(nullptr));
    forPrecision(static_cast<double*>(nullptr));
}

/// The driver for one tree type; false when the object has no tree or topology of that type.
template <typename Op, typename Traits>
bool analyzeTraits(std::vector<String> const& names, String const& maskName, bool replaceInput,
                   TVL::Object& object, Stages const& stages)
{
    // Put back at the end, the topology first, also while an exception unwinds.
    TVL::ComponentGuard<Container<Traits>> container(object, Tavrel::Geometry::sVoxelTileTree);
    TVL::ComponentGuard<VoxelTopology<Traits>> topology(object, Tavrel::Geometry::sVoxelComp);
    if (!container || !topology)
        return false;
    auto const mask = object.component<Channel<Traits, float, Traits::kTileWidth, 0, 0>>(maskName);
    // Every change of a tree drops its tables, so tables still present describe the tree as it
    // is (a previous call left them): they are kept rather than built again.
    {
        auto const t = CoreGL::Logger::timer(stages.precomputeNeighbors, nullptr);
        if (!container->hasPrecomputedTileNeighbors())
            container->precomputeTileNeighbors();
    }
    {
        auto const t = CoreGL::Logger::timer(stages.precomputeHalos, nullptr);
        if (!container->hasCompressedTileHalos())
            container->precomputeCompressedTileHalos();
    }
    for (String const& name : names)
        channelStep<Op, Traits>(object, name, *container, *topology, mask.get(), replaceInput,
                                stages);
    return true;
}

template <typename Op>
bool analyze(String const& channels, String const& maskName, bool replaceInput, TVL::Object& object)
{
    TVL::Utils::ChannelParser parser;
    parser.parses(channels.empty() ? String("*") : channels);
    std::vector<String> names;
    for (String const& name : object.componentRange())
        if (object.hasComponentFromName<TVL::TileTree3D::ChannelBase>(name) && parser.accepts(name))
            names.push_back(name);
    Stages const stages;
    bool const done24 = analyzeTraits<Op, Traits24>(names, maskName, replaceInput, object, stages);
    bool const done55 = analyzeTraits<Op, Traits55>(names, maskName, replaceInput, object, stages);
    return done24 || done55;
}

} // namespace VolumeGL::TileTree3D::Analyze::detail

namespace VolumeGL::TileTree3D {

template <typename Op>
bool analyze(Quillon::String const& channels, Quillon::String const& maskName, bool replaceInput,
             TVL::Object& io_object)
{
    return Analyze::detail::analyze<Op>(channels, maskName, replaceInput, io_object);
}

} // namespace VolumeGL::TileTree3D
