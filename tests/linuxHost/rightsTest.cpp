#include "linuxHost/rights.h"
#include "tests/fakes/kernelTree.h"
#include "tests/fakes/otherUser.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

class RightsTest : public testing::Test, protected KernelTree {
protected:
   /// The first words of each line.
   static std::string Lines(const std::vector<std::string>& lines)
   {
      std::string text;
      for (const std::string& line : lines) {
         text += line.substr(0, line.find(':')) + "\n";
      }
      return text;
   }
};

TEST_F(RightsTest, WhatIsHiddenIsNamed)
{
   Write({{"proc/self/", ""},
          {"sys/block/vda/device/", ""},
          {"sys/block/vda/size", "8\n"},
          {"sys/block/sr0/device/", ""},
          {"sys/block/sr0/size", "0\n"},
          {"sys/block/loop0/size", "8\n"},
          {"sys/fs/cgroup", ""}});
   EXPECT_EQ("The processes of other users are hidden\n"
             "/sys/fs/cgroup cannot be listed\n"
             "/dev has no nodes of the disks\n",
             Lines(LinuxHost::FindMissingRights(GetRoot())));
   Remove("sys/fs/cgroup");
   Write({{"proc/1/", ""}, {"dev/vda", ""}});
   EXPECT_EQ("", Lines(LinuxHost::FindMissingRights(GetRoot())));
}

TEST_F(RightsTest, WhatAnotherUserMayNotReadIsNamed)
{
   const std::string directory = GetRoot(); // its owner's alone
   if (geteuid() != 0) {
      GTEST_SKIP() << "only root can become another user";
   }
   const std::string merged = "Merged pages of other users' processes cannot be read\n";
   const std::string images = directory + " cannot be searched\n";
   const auto find = [&directory] { return Lines(LinuxHost::FindMissingRights("", {directory})); };
   const std::string asRoot = find();
   EXPECT_EQ(std::string::npos, asRoot.find(merged));
   EXPECT_EQ(std::string::npos, asRoot.find(images));
   const OtherUser user;
   const std::string asOther = find();
   EXPECT_NE(std::string::npos, asOther.find(images)) << asOther;
   const bool isMergedCounted = access("/proc/1/ksm_merging_pages", F_OK) == 0;
   EXPECT_EQ(isMergedCounted, asOther.find(merged) != std::string::npos) << asOther;
}

} // namespace
