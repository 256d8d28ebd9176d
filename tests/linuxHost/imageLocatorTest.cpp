#include "linuxHost/imageLocator.h"
#include "corvax/format.h"
#include "tests/fakes/kernelTree.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using Corvax::Format;
using LinuxHost::FileIdentity;
using LinuxHost::ImageLocator;
using LinuxHost::VmDisk;

/// Devices 254:0 to 254:4 are vda, its partition vda2, a volume dm-1 on vdb and a volume on vda2, a
/// volume dm-2 on itself, and cciss/c0d0; 254:5 is a volume on a multipath device with the paths
/// sdc and sdb, 254:6 a loop device of /image2, which is on 254:5, and 254:7 one of itself. Mount
/// 30 is a btrfs from a node of 254:1 whose name needs escapes, 31 is NFS, 32 is tmpfs.
class ImageLocatorTest : public testing::Test, protected KernelTree {
protected:
   ImageLocatorTest()
   {
      const std::string devices = "sys/devices/block/";
      Write({{devices + "vda/vda2/partition", "2\n"},
             {devices + "vda/slaves/", ""},
             {devices + "vdb/", ""},
             {devices + "cciss!c0d0/", ""},
             {"proc/self/mountinfo",
              "30\n30 1 x:6 / / rw - a /dev/none c\n30 1 4294967296:0 / / rw - a\n"
              "30 1 0:40 / /a rw shared:1 - btrfs /dev/a\\040b\\\\\\0 rw\n"
              "31 1 0:41 / /b - nfs rw - nfs4 /dev/x:/y rw\n"
              "32 1 0:42 / /c rw - tmpfs  rw\n32 1 0:42 / /c rw"}});
      Link(devices + "dm-0/slaves/vda2", "../../vda/vda2");
      Link(devices + "dm-1/slaves/vdb", "../../vdb");
      Link(devices + "dm-1/slaves/dm-0", "../../dm-0");
      Link(devices + "dm-2/slaves/dm-2", "../../dm-2");
      Link(devices + "dm-3/slaves/dm-4", "../../dm-4");
      Link(devices + "dm-4/slaves/sdc", "../../sdc");
      Link(devices + "dm-4/slaves/sdb", "../../sdb");
      Link(devices + "dm-4/slaves/sda", "../../sda"); // a path that is gone
      Write({{devices + "sdb/", ""},
             {devices + "sdc/", ""},
             {devices + "loop6/", ""},
             {devices + "loop7/", ""},
             {devices + "zram0/", ""},
             {"sys/block/loop6/loop/backing_file", "/image2\n"},
             {"sys/block/loop7/loop/backing_file", "/dev/loop7\n"}});
      const char* const names[] = {"vda",  "vda/vda2", "dm-1",  "dm-2", "cciss!c0d0",
                                   "dm-3", "loop6",    "loop7", "zram0"};
      for (size_t i = 0; i < std::size(names); ++i) {
         Link(Format("sys/dev/block/254:%1", i), std::string("../../devices/block/") + names[i]);
      }
   }

   /// The disk of an image with that identity; unset: the image cannot be accessed.
   std::string FindDisk(VmDisk::Image image, const std::optional<FileIdentity>& identity)
   {
      std::map<std::string, std::optional<FileIdentity>> files = {
         {Path("/image"), identity},
         {Path("/image2"), FileIdentity{{254, 5}, {}, {}}},
         {Path("/dev/loop7"), FileIdentity{{0, 6}, {}, {{254, 7}}}},
         {Path("/dev/a b\\\\\\0"), FileIdentity{{0, 6}, {}, {{254, 1}}}}};
      const ImageLocator locator(Path(), [&files](const std::string& path) { return files[path]; });
      return locator.FindDisk({"vda", image, "/image"});
   }
};

TEST_F(ImageLocatorTest, AnImageIsOnTheDiskThatIsCounted)
{
   using Image = VmDisk::Image;
   const std::tuple<const char*, Image, std::optional<FileIdentity>, const char*> cases[] = {
      {"on a partition", Image::FILE, FileIdentity{{254, 1}, 30, {}}, "vda"},
      {"a volume on volumes", Image::BLOCK_DEVICE, FileIdentity{{0, 6}, {}, {{254, 2}}}, "vda"},
      {"a cycle", Image::FILE, FileIdentity{{254, 3}, {}, {}}, "other"},
      {"the first path that is present", Image::FILE, FileIdentity{{254, 5}, {}, {}}, "sdb"},
      {"a loop device's file", Image::BLOCK_DEVICE, FileIdentity{{0, 6}, {}, {{254, 6}}}, "sdb"},
      {"a loop device of itself", Image::FILE, FileIdentity{{254, 7}, {}, {}}, "other"},
      {"compressed memory", Image::FILE, FileIdentity{{254, 8}, {}, {}}, "other"},
      {"a slash in the name", Image::FILE, FileIdentity{{254, 4}, {}, {}}, "cciss/c0d0"},
      {"not a block device", Image::BLOCK_DEVICE, FileIdentity{{254, 0}, {}, {}}, "other"},
      {"btrfs by its mount", Image::FILE, FileIdentity{{0, 77}, 30, {}}, "vda"},
      {"btrfs by its device", Image::FILE, FileIdentity{{0, 40}, {}, {}}, "vda"},
      {"NFS", Image::FILE, FileIdentity{{0, 41}, 31, {}}, "network"},
      {"tmpfs", Image::FILE, FileIdentity{{0, 42}, 32, {}}, "other"},
      {"not mounted", Image::FILE, FileIdentity{{0, 41}, 34, {}}, "other"},
      {"not accessible", Image::FILE, {}, "other"},
      {"on a server", Image::NETWORK, {}, "network"},
   };
   for (const auto& [name, image, identity, expected] : cases) {
      EXPECT_EQ(expected, FindDisk(image, identity)) << name;
   }
}

TEST_F(ImageLocatorTest, ADeviceHasAllDisksBelowItEachOnce)
{
   using Names = std::vector<std::string>;
   EXPECT_EQ((Names{"sdb", "sdc"}), LinuxHost::FindWholeDisks(Path(), {254, 5}));
   EXPECT_EQ((Names{"vda", "vdb"}), LinuxHost::FindWholeDisks(Path(), {254, 2}));
   EXPECT_EQ(Names{}, LinuxHost::FindWholeDisks(Path(), {254, 3}));
   EXPECT_EQ(Names{}, LinuxHost::FindWholeDisks(Path(), {254, 99}));
}

TEST_F(ImageLocatorTest, OnlyABlockDevicesNodeHasADevice)
{
   EXPECT_FALSE(LinuxHost::IdentifyFile(Path("gone")));
   EXPECT_FALSE(LinuxHost::IdentifyFile("/dev/null")->device);
}

} // namespace
