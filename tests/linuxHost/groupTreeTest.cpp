#include "linuxHost/groupTree.h"
#include "corvax/format.h"
#include "hostctl/lib.h"
#include "tests/fakes/kernelTree.h"
#include "tests/fakes/otherUser.h"

#include <gtest/gtest.h>

namespace {

using Corvax::Format;
using LinuxHost::ControlGroups;

const std::string kTop = "sys/fs/cgroup/";

class GroupTreeTest : public testing::Test, protected KernelTree {
protected:
   GroupTreeTest() { Write(kTop + "unified/cgroup.controllers", ""); }
};

TEST_F(GroupTreeTest, PartitionsAndSlicesBelowTheMachineGroupsArePools)
{
   const std::string slice = kTop + "unified/machine.slice/";
   Write({{slice + "machine-g.slice/machine-g-w\\x2d1\\x2f\\x.slice/", ""},
          {slice + "machine-g.slice/machine-qemu\\x2d1.scope/in.slice/", ""},
          {slice + ".slice/", ""},
          {slice + "machine-.slice/", ""},
          {kTop + "memory/machine/g.partition/a.partition/qemu-1-a.libvirt-qemu/emulator/", ""},
          {kTop + "memory/machine/plain/x.partition/", ""}});
   const ControlGroups groups(Path());
   std::string text;
   for (const auto& pool : LinuxHost::FindPools(groups)) {
      text += Format("%1 %2 %3 %4\n", pool.id, pool.name, pool.parentId, pool.path);
   }
   EXPECT_EQ("pool:machine- machine- ha-root-pool /machine.slice/machine-.slice\n"
             "pool:g g ha-root-pool /machine.slice/machine-g.slice\n"
             "pool:g/w-1\\x2f\\x w-1\\x2f\\x pool:g "
             "/machine.slice/machine-g.slice/machine-g-w\\x2d1\\x2f\\x.slice\n"
             "pool:g/a a pool:g /machine/g.partition/a.partition\n",
             text);
   EXPECT_EQ("/machine.slice", LinuxHost::FindMachinePath(groups));
}

TEST_F(GroupTreeTest, PoolsEndAtTheSixteenthLevel)
{
   std::string deep = kTop + "unified/machine/";
   for (int depth = 1; depth <= 17; ++depth) {
      deep += "d.partition/";
   }
   MakeDirectory(deep);
   EXPECT_EQ(16U, LinuxHost::FindPools(ControlGroups(Path())).size());
}

TEST_F(GroupTreeTest, APoolIsGoneWhenItsGroupIsMissingTwiceAndNotWhenAListingFails)
{
   const std::string gold = kTop + "unified/machine/gold.partition/";
   MakeDirectory(gold + "web.partition");
   const ControlGroups groups(Path());
   LinuxHost::PoolTracker pools;
   const auto gone = [&] {
      std::string text;
      for (const std::string& id : pools.LookUp(groups).gone) {
         text += id + " ";
      }
      return text;
   };
   EXPECT_EQ("", gone());
   const auto paths = pools.GetPaths();
   EXPECT_EQ("/machine/gold.partition/web.partition", paths.at("pool:gold/web"));
   std::filesystem::permissions(GetRoot(), std::filesystem::perms::none);
   for (int i = 0; i < 2; ++i) {
      const OtherUser user;
      EXPECT_THROW(gone(), HostCtl::Lib::HostCtlException);
      EXPECT_THROW(LinuxHost::FindSystemGroups(groups), HostCtl::Lib::HostCtlException);
   }
   std::filesystem::permissions(GetRoot(), std::filesystem::perms::owner_all);
   Remove(gold + "web.partition");
   EXPECT_EQ("", gone()) << "once";
   EXPECT_EQ(paths, pools.GetPaths());
   MakeDirectory(gold + "web.partition");
   EXPECT_EQ("", gone());
   Remove(gold);
   Link(kTop + "unified/machine/gold.partition", Path("sys")); // not listed, but it exists
   EXPECT_EQ("pool:gold/web ", gone() + gone());
   Remove(kTop + "unified/machine/gold.partition");
   EXPECT_EQ("", gone()) << "once again";
   EXPECT_EQ("pool:gold ", gone());
   Remove(kTop + "unified/machine");
   EXPECT_EQ("", gone());
   EXPECT_EQ("/machine", pools.GetPaths().at("ha-root-pool"));
   EXPECT_EQ("", gone());
   EXPECT_EQ("", pools.GetPaths().at("ha-root-pool"));
   Remove(kTop);
   EXPECT_THROW(gone(), HostCtl::Lib::HostCtlException) << "not mounted any more";
}

TEST_F(GroupTreeTest, SystemGroupsAreAllOthersTwoLevelsDeep)
{
   const std::string longPath = "/system.slice/" + std::string(250, 'n');
   Write({{kTop + "unified/system.slice/ssh.service/deep/", ""},
          {kTop + "memory" + longPath + "/", ""},
          {kTop + "unified/init.scope/", ""},
          {kTop + "unified/machine.slice/machine-g.slice/", ""},
          {kTop + "memory/machine/g.partition/", ""}});
   const auto system = LinuxHost::FindSystemGroups(ControlGroups(Path()));
   ASSERT_EQ(2U, system.root->child->GetSize());
   const auto& services = *(*system.root->child)[1]->child;
   ASSERT_EQ(2U, services.GetSize());
   EXPECT_EQ(longPath, system.pathByKey.at(services[0]->key));
   EXPECT_EQ("/system.slice/ssh.service", services[1]->key);
   EXPECT_EQ(5U, system.pathByKey.size());
}

TEST(PoolIdTest, APartitionHasTheIdOfItsPool)
{
   const std::string longName(251, 'x');
   const std::pair<std::string, std::string> cases[] = {
      {"", "ha-root-pool"},
      {"/other/gold", "ha-root-pool"},
      {"/machine//gold/web", "pool:gold/web"},
      {"/machine/gold.partition/web.partition", "pool:gold/web"},
      {"/machine.slice/another-x.slice", "pool:another-x"},
      {"/machine.slice/machine-gold.slice/machine-gold-web\\x2d1.slice", "pool:gold/web-1"},
      {"/machine/" + longName, LinuxHost::PoolIdOfPartition("/machine/" + longName + ".partition")},
   };
   for (const auto& [partition, id] : cases) {
      EXPECT_EQ(id, LinuxHost::PoolIdOfPartition(partition)) << partition;
   }
}

} // namespace
