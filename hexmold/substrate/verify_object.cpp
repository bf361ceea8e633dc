/// @file  substrate/verify_object.cpp
/// @brief Object structure checks and channel name tests.
#include <hexmold/substrate/verify_object.h>

#include <hexmold/logging/logger.h>
#include <iostream>

namespace CoreGL {

namespace {

void error(Quillon::StringView text)
{
    if (Logger::errorVerboseLevel() > 0)
        std::cerr << text << '\n';
}

void debug(Quillon::StringView text)
{
    Logger::DebugFileStreamScopedLock lock;
    Logger::debugFileStream() << text << '\n';
}

bool beginsLonger(Quillon::String const& name, Quillon::StringView prefix)
{
    return name.size() > prefix.size() &&
           Quillon::StringView(name).substr(0, prefix.size()) == prefix;
}

} // namespace

bool verifyObject(TVL::Object const& object, Quillon::String const& topologyName,
                  Quillon::String const& containerName)
{
    bool const verbose = Logger::verboseLevel() > 2;
    if (verbose)
        debug("verifyObject.begin");
    bool success = true;

    Quillon::Ptr<TVL::Component> container = object.component(containerName);
    if (!container) {
        error("verifyObject.error: container is nullptr");
        success = false;
    } else if (!container->targetName().empty()) {
        error("verifyObject.error: container has a target (it should not since it is the root)");
        success = false;
    }

    Quillon::Ptr<TVL::Component> topology = object.component(topologyName);
    if (!topology) {
        error("verifyObject.error: topology is nullptr");
        success = false;
    } else {
        if (container && topology->targetName() != container->name()) {
            error("verifyObject.error: topology does not target container");
            success = false;
        }
        for (Quillon::String const& name : object.componentRange()) {
            if (name == containerName || name == topologyName)
                continue;
            if (object.component(name)->targetName() != topology->name()) {
                error("verifyObject.error: channel '" + name + "' is not a target of topology");
                success = false;
            }
        }
    }

    if (verbose)
        debug(std::string("verifyObject.end (success = ") + (success ? "true" : "false") + ")");
    return success;
}

bool isFuel(Quillon::String const& name)
{
    return beginsLonger(name, "voxel_fuel");
}

bool isMappable(Quillon::String const& name)
{
    return beginsLonger(name, "voxel_");
}

bool isEmissionRate(Quillon::String const& name)
{
    Quillon::StringView const suffix = "_emission_rate";
    return name.size() > suffix.size() &&
           Quillon::StringView(name).substr(name.size() - suffix.size()) == suffix;
}

} // namespace CoreGL
