// Channel selection patterns.
#include <gtest/gtest.h>

#include <hexmold/substrate/channel_parser.h>

using TVL::Utils::ChannelParser;

TEST(ChannelParser, StarSelectsEverything)
{
    ChannelParser p;
    ASSERT_TRUE(p.parses("*").ok());
    EXPECT_TRUE(p.accepts("voxel_signed_distance"));
    EXPECT_TRUE(p.accepts(""));
    ASSERT_TRUE(p.parses("  *  ").ok());
    EXPECT_TRUE(p.accepts("density"));
}

TEST(ChannelParser, EmptyPatternSelectsNothing)
{
    ChannelParser p;
    EXPECT_FALSE(p.accepts("density")); // nothing parsed yet
    ASSERT_TRUE(p.parses("").ok());
    EXPECT_FALSE(p.accepts("density"));
    ASSERT_TRUE(p.parses(" , ,").ok());
    EXPECT_FALSE(p.accepts("density"));
}

TEST(ChannelParser, CommaAndSpaceSeparatedNames)
{
    ChannelParser p;
    ASSERT_TRUE(p.parses("density, temperature\tvelocity").ok());
    EXPECT_TRUE(p.accepts("density"));
    EXPECT_TRUE(p.accepts("temperature"));
    EXPECT_TRUE(p.accepts("velocity"));
    EXPECT_FALSE(p.accepts("dens"));
    EXPECT_FALSE(p.accepts("densityx"));
    EXPECT_FALSE(p.accepts("Density"));
}

TEST(ChannelParser, GlobWildcards)
{
    ChannelParser p;
    ASSERT_TRUE(p.parses("voxel_* vel?").ok());
    EXPECT_TRUE(p.accepts("voxel_fuel"));
    EXPECT_TRUE(p.accepts("voxel_"));
    EXPECT_TRUE(p.accepts("velx"));
    EXPECT_FALSE(p.accepts("vel"));
    EXPECT_FALSE(p.accepts("velxy"));
    EXPECT_FALSE(p.accepts("avoxel_a"));
    ASSERT_TRUE(p.parses("*_emission_*rate").ok());
    EXPECT_TRUE(p.accepts("fire_emission_rate"));
    EXPECT_TRUE(p.accepts("a_emission_b_rate"));
    EXPECT_FALSE(p.accepts("fire_emission_rates"));
}

TEST(ChannelParser, ExclusionsRemoveNames)
{
    ChannelParser p;
    ASSERT_TRUE(p.parses("* ^voxel_signed_distance").ok());
    EXPECT_TRUE(p.accepts("density"));
    EXPECT_FALSE(p.accepts("voxel_signed_distance"));
    ASSERT_TRUE(p.parses("^voxel_*").ok()); // exclusions only: everything else
    EXPECT_TRUE(p.accepts("density"));
    EXPECT_FALSE(p.accepts("voxel_depth"));
    ASSERT_TRUE(p.parses("d*, ^*ty").ok());
    EXPECT_TRUE(p.accepts("depth"));
    EXPECT_FALSE(p.accepts("density"));
    EXPECT_FALSE(p.accepts("temperature"));
}

TEST(ChannelParser, BadPatternsAreErrorsAndSelectNothing)
{
    ChannelParser p;
    auto s = p.parses("^");
    EXPECT_FALSE(s.ok());
    EXPECT_FALSE(static_cast<bool>(s));
    EXPECT_FALSE(s.message().empty());
    EXPECT_FALSE(p.accepts("density"));
    EXPECT_FALSE(p.parses("density, ^ ").ok());
    EXPECT_FALSE(p.parses("a^b").ok());
    EXPECT_FALSE(p.parses("^^a").ok());
    EXPECT_FALSE(p.accepts("a"));
    EXPECT_TRUE(p.parses("a").ok());
    EXPECT_TRUE(p.accepts("a"));
}

TEST(ChannelParser, GlobMatchHandlesBacktracking)
{
    using TVL::Utils::globMatch;
    EXPECT_TRUE(globMatch("a*b*c", "aXbYbZc"));
    EXPECT_FALSE(globMatch("a*b*c", "aXbYbZ"));
    EXPECT_TRUE(globMatch("**", ""));
    EXPECT_TRUE(globMatch("?*", "x"));
    EXPECT_FALSE(globMatch("?", ""));
    EXPECT_TRUE(globMatch("*aab", "aaaab"));
}
