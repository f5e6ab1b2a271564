// Plug-in resources by type: found through the interface they implement, in the order
// they were added, and gone once removed.
#include "host/media/PluginResources.h"

#include <gtest/gtest.h>

namespace {

struct iTransfer : public iObject {
    virtual int id() const = 0;
};
struct Transfer : iTransfer {
    explicit Transfer(int i) : i_(i) {}
    int id() const override { return i_; }
    int i_;
};
struct Unrelated : iObject {};

} // namespace

TEST(PluginResources, FoundByTypeAndInterfaceInOrderUntilRemoved) {
    const int type = 9032; // a type no plug-in of the build uses
    Zn::Ptr<iObject> a(new Transfer(1)), b(new Transfer(2)), other(new Unrelated);
    Zn::PluginResources::add(type, a);
    Zn::PluginResources::add(type, other);
    Zn::PluginResources::add(type, b);
    Zn::PluginResources::add(type, a);      // already listed
    Zn::PluginResources::add(type, nullptr);
    Zn::PluginResources::add(type + 1, Zn::Ptr<iObject>(new Transfer(3)));

    auto found = Zn::findPluginResources<iTransfer>(type);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0]->id(), 1);
    EXPECT_EQ(found[1]->id(), 2);
    EXPECT_EQ(Zn::PluginResources::list(type).size(), 3u);

    EXPECT_TRUE(Zn::PluginResources::remove(type, a));
    EXPECT_FALSE(Zn::PluginResources::remove(type, a));
    EXPECT_FALSE(Zn::PluginResources::remove(type + 2, b));
    found = Zn::findPluginResources<iTransfer>(type);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]->id(), 2);
    EXPECT_EQ(a.refCount(), 1); // the list let go of it
    Zn::PluginResources::remove(type, b);
    Zn::PluginResources::remove(type, other);
    EXPECT_TRUE(Zn::findPluginResources<iTransfer>(type + 3).empty());
}
