// Tests of Tavrel::Object: properties of any type, components, prototypes.
#include <gtest/gtest.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/tavrel/object.h>
#include <string>

using Tavrel::Object;

namespace {
/// Something a conversion layer would store: a shared, non-copyable-by-value payload.
struct Payload {
    int value = 0;
};
} // namespace

TEST(Object, MissingPropertyIsEmpty)
{
    Object object;
    EXPECT_FALSE(object.getProperty("absent").has_value());
    EXPECT_EQ(object.findProperty("absent"), nullptr);
    EXPECT_FALSE(object.hasProperty("absent"));
    EXPECT_EQ(object.getPropertyAs<int>("absent"), nullptr);
}

TEST(Object, SetAndGetPropertiesOfAnyType)
{
    Object object;
    EXPECT_TRUE(object.setProperty("count", 3));
    EXPECT_TRUE(object.setProperty("name", std::string("sphere")));
    auto payload = Quillon::makePtr<Payload>();
    payload->value = 42;
    EXPECT_TRUE(object.setProperty("payload", payload));
    EXPECT_EQ(payload.useCount(), 2);

    ASSERT_NE(object.getPropertyAs<int>("count"), nullptr);
    EXPECT_EQ(*object.getPropertyAs<int>("count"), 3);
    EXPECT_EQ(*object.getPropertyAs<std::string>("name"), "sphere");
    auto const* stored = object.getPropertyAs<Quillon::Ptr<Payload>>("payload");
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ((*stored)->value, 42);
    EXPECT_EQ(std::any_cast<int>(object.getProperty("count")), 3);
}

TEST(Object, WrongTypeReadGivesNull)
{
    Object object;
    object.setProperty("count", 3);
    EXPECT_EQ(object.getPropertyAs<float>("count"), nullptr);
    EXPECT_EQ(object.getPropertyAs<long>("count"), nullptr);
}

TEST(Object, EmptyAnyIsPresentButEmpty)
{
    Object object;
    object.setProperty("nothing", Quillon::Any());
    EXPECT_TRUE(object.hasProperty("nothing"));
    ASSERT_NE(object.findProperty("nothing"), nullptr);
    EXPECT_FALSE(object.getProperty("nothing").has_value());
}

TEST(Object, EmptyNameIsRefused)
{
    Object object;
    EXPECT_FALSE(object.setProperty("", 1));
    EXPECT_FALSE(object.setComponent("", 4));
    EXPECT_EQ(object.propertyCount(), 0u);
}

TEST(Object, SetReplacesAndRemoveDeletes)
{
    Object object;
    object.setProperty("x", 1);
    object.setProperty("x", 2.5);
    EXPECT_EQ(object.propertyCount(), 1u);
    EXPECT_EQ(*object.getPropertyAs<double>("x"), 2.5);
    EXPECT_TRUE(object.removeProperty("x"));
    EXPECT_FALSE(object.removeProperty("x"));
    EXPECT_FALSE(object.hasProperty("x"));
}

TEST(Object, RemovingAnAbsentPropertyDoesNothing)
{
    Object object;
    object.setProperty("a", 1);
    EXPECT_FALSE(object.removeProperty("b"));
    EXPECT_EQ(object.propertyCount(), 1u);
}

TEST(Object, ExtractMovesTheValueOut)
{
    Object object;
    auto payload = Quillon::makePtr<Payload>();
    object.setProperty("p", payload);
    Quillon::Any value = object.extractProperty("p");
    EXPECT_FALSE(object.hasProperty("p"));
    ASSERT_NE(std::any_cast<Quillon::Ptr<Payload>>(&value), nullptr);
    EXPECT_EQ(payload.useCount(), 2);
    EXPECT_FALSE(object.extractProperty("p").has_value());
}

TEST(Object, NamesAreSortedWhateverTheInsertionOrder)
{
    Object object;
    object.setProperty("zeta", 1);
    object.setProperty("alpha", 2);
    object.setComponent("mid", 3);
    auto const names = object.propertyNames();
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[0], "alpha");
    EXPECT_EQ(names[1], "mid");
    EXPECT_EQ(names[2], "zeta");
    object.clear();
    EXPECT_EQ(object.propertyCount(), 0u);
}

TEST(Object, ComponentsHoldElementCounts)
{
    Object object;
    EXPECT_TRUE(object.setComponent("point", 12));
    object.setProperty("not_a_component", 5);
    EXPECT_TRUE(object.isComponent("point"));
    EXPECT_FALSE(object.isComponent("not_a_component"));
    EXPECT_FALSE(object.isComponent("absent"));
    EXPECT_EQ(object.elementCount("point"), 12u);
    EXPECT_EQ(object.elementCount("not_a_component"), 0u);
    EXPECT_EQ(object.elementCount("absent"), 0u);
    auto const components = object.componentNames();
    ASSERT_EQ(components.size(), 1u);
    EXPECT_EQ(components[0], "point");
}

TEST(Object, CopySharesPointersAndCopiesValues)
{
    Object object;
    auto payload = Quillon::makePtr<Payload>();
    object.setProperty("p", payload);
    object.setProperty("n", 1);
    Object copy = object;
    copy.setProperty("n", 2);
    EXPECT_EQ(*object.getPropertyAs<int>("n"), 1);
    EXPECT_EQ(copy.getPropertyAs<Quillon::Ptr<Payload>>("p")->get(), payload.get());
    EXPECT_EQ(payload.useCount(), 3);
    Object moved = std::move(copy);
    EXPECT_EQ(*moved.getPropertyAs<int>("n"), 2);
    EXPECT_EQ(payload.useCount(), 3);
}

TEST(Object, InstanceOfFollowsThePrototypeChain)
{
    auto base = Quillon::makePtr<Object const>();
    auto derived = Quillon::makePtr<Object const>(base);
    auto other = Quillon::makePtr<Object const>();
    Object object(derived);
    EXPECT_TRUE(object.isInstanceOf(derived));
    EXPECT_TRUE(object.isInstanceOf(base));
    EXPECT_TRUE(object.isInstanceOf(*base));
    EXPECT_FALSE(object.isInstanceOf(other));
    EXPECT_FALSE(object.isInstanceOf(Quillon::Ptr<Object const>()));
    EXPECT_FALSE(object.isInstanceOf(object));
    EXPECT_EQ(object.prototype().get(), derived.get());
    // A copy of an instance is an instance of the same prototype.
    Object copy = object;
    EXPECT_TRUE(copy.isInstanceOf(base));
}

TEST(Object, PrototypeLoopIsRefused)
{
    auto a = Quillon::makePtr<Object>();
    auto b = Quillon::makePtr<Object>(Quillon::Ptr<Object const>(a));
    // a -> b -> a would be a loop.
    EXPECT_FALSE(a->setPrototype(Quillon::Ptr<Object const>(b)));
    EXPECT_EQ(a->prototype().get(), nullptr);
    // Nor may an object be its own prototype.
    EXPECT_FALSE(a->setPrototype(Quillon::Ptr<Object const>(a)));
    EXPECT_TRUE(a->setPrototype(Quillon::makePtr<Object const>()));
    EXPECT_TRUE(a->setPrototype(nullptr));
    EXPECT_EQ(a->prototype().get(), nullptr);
}
