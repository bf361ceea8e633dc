/// @file  api/analyze.cpp
/// @brief `hexmold::analyze`: the selection checked against the operator's element types, then
///        one call of `analyze<Operator>`.
#include <hexmold/analysis/analyze.h>
#include <hexmold/api/analyze.h>
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/substrate/channel_parser.h>
#include <hexmold/substrate/object.h>

namespace hexmold {

namespace {

constexpr std::string_view kEntry = "hexmold::analyze";

/// Whether @p op reads scalar channels (else vector channels).
bool takesScalars(AnalyzeOperator op)
{
    return op == AnalyzeOperator::kGradient || op == AnalyzeOperator::kLaplacian ||
           op == AnalyzeOperator::kMeanCurvature || op == AnalyzeOperator::kClosestPoint;
}

/// Whether @p name is a channel the operator reads: the voxel form or the form with one halo
/// layer, in single or double precision.
template <typename Traits>
bool readable(TVL::Object const& object, std::string const& name, bool scalars)
{
    using namespace TVL::TileTree3D;
    constexpr int W = Traits::kTileWidth;
    if (scalars)
        return object.component<Channel<Traits, float, W, 0, 0>>(name) ||
               object.component<Channel<Traits, float, W, 1, 0>>(name) ||
               object.component<Channel<Traits, double, W, 0, 0>>(name) ||
               object.component<Channel<Traits, double, W, 1, 0>>(name);
    return object.component<Channel<Traits, float3, W, 0, 0>>(name) ||
           object.component<Channel<Traits, float3, W, 1, 0>>(name) ||
           object.component<Channel<Traits, double3, W, 0, 0>>(name) ||
           object.component<Channel<Traits, double3, W, 1, 0>>(name);
}

bool call(AnalyzeOperator op, Quillon::String const& channels, Quillon::String const& mask,
          bool replace, TVL::Object& object)
{
    namespace A = VolumeGL::TileTree3D::Analyze;
    using VolumeGL::TileTree3D::analyze;
    switch (op) {
    case AnalyzeOperator::kGradient:
        return analyze<A::GradientOperator>(channels, mask, replace, object);
    case AnalyzeOperator::kLaplacian:
        return analyze<A::LaplacianOperator>(channels, mask, replace, object);
    case AnalyzeOperator::kDivergence:
        return analyze<A::DivergenceOperator>(channels, mask, replace, object);
    case AnalyzeOperator::kCurl:
        return analyze<A::CurlOperator>(channels, mask, replace, object);
    case AnalyzeOperator::kMeanCurvature:
        return analyze<A::MeanCurvatureOperator>(channels, mask, replace, object);
    case AnalyzeOperator::kClosestPoint:
        return analyze<A::ClosestPointOperator>(channels, mask, replace, object);
    case AnalyzeOperator::kMagnitude:
        return analyze<A::MagnitudeOperator>(channels, mask, replace, object);
    case AnalyzeOperator::kNormalize:
        return analyze<A::NormalizeOperator>(channels, mask, replace, object);
    }
    return false;
}

} // namespace

char const* analyzeOutputWord(AnalyzeOperator op)
{
    switch (op) {
    case AnalyzeOperator::kGradient:
        return "gradient";
    case AnalyzeOperator::kLaplacian:
        return "laplacian";
    case AnalyzeOperator::kDivergence:
        return "divergence";
    case AnalyzeOperator::kCurl:
        return "curl";
    case AnalyzeOperator::kMeanCurvature:
        return "gradient"; // kept: named like a gradient output
    case AnalyzeOperator::kClosestPoint:
        return "closest_point";
    case AnalyzeOperator::kMagnitude:
        return "magnitude";
    case AnalyzeOperator::kNormalize:
        return "normalize";
    }
    detail::fail(kEntry, "unknown operator " + std::to_string(int(op)));
}

std::vector<std::string> analyze(Volume& io_volume, AnalyzeOperator op,
                                 AnalyzeOptions const& options)
{
    if (io_volume.empty())
        detail::fail(kEntry, "the volume is empty (it holds no tile tree)");
    char const* const word = analyzeOutputWord(op);
    bool const scalars = takesScalars(op);
    char const* const takes = scalars ? "float or double channels" : "float3 or double3 channels";
    TVL::Object& object = io_volume.object();

    TVL::Utils::ChannelParser parser;
    std::string const pattern = options.channels.empty() ? "*" : options.channels;
    if (TVL::Utils::Status const status = parser.parses(pattern); !status)
        detail::fail(kEntry,
                     "the channel pattern \"" + pattern + "\" does not parse: " + status.message());
    std::vector<std::string> inputs, others;
    for (auto const& name : object.componentRange()) {
        if (!object.hasComponentFromName<TVL::TileTree3D::ChannelBase>(name) ||
            !parser.accepts(name))
            continue;
        bool const ok = detail::withTraits(io_volume.traits(), [&](auto tag) {
            return readable<typename decltype(tag)::type>(object, name, scalars);
        });
        (ok ? inputs : others).push_back(name);
    }
    if (inputs.empty()) {
        if (others.empty())
            detail::fail(kEntry, "no channel matches \"" + pattern +
                                     "\" (channels: " + detail::channelNames(object) + ")");
        std::string found;
        for (auto const& name : others) {
            auto const channel = object.component<TVL::TileTree3D::ChannelBase>(name);
            found += (found.empty() ? "" : ", ") + name + " (" +
                     detail::elementTypeName(channel->elementType()) + ")";
        }
        detail::fail(kEntry, std::string(word) + " takes " + takes + "; \"" + pattern +
                                 "\" selects only " + found);
    }
    if (!options.mask.empty())
        detail::withTraits(io_volume.traits(), [&](auto tag) {
            detail::requireChannel<typename decltype(tag)::type, float>(
                io_volume, options.mask, "a float mask channel", kEntry);
        });

    call(op, pattern, options.mask, options.replaceInput, object);
    std::vector<std::string> outputs;
    for (auto const& name : inputs)
        outputs.push_back(options.replaceInput ? name : name + "_" + word);
    return outputs;
}

} // namespace hexmold
