#include "metrix/statsStore.h"

#include "tests/fakes/captureLogger.h"
#include "tests/fakes/messageOf.h"
#include "tests/fakes/scratch.h"

#include <gtest/gtest.h>

namespace {

using namespace Metrix;

class StatsStoreTest : public testing::Test {
protected:
   Corvax::Ref<StatsStore> Open()
   {
      Corvax::Ref<StatsStore> store;
      GetStatsStore(_scratch.Path() + "s.stats", _logger.Get(), store);
      return store;
   }
   const Scratch _scratch;
   const Corvax::Ref<CaptureLogger> _logger = Corvax::MakeRef<CaptureLogger>();
};

TEST_F(StatsStoreTest, FileIsByteForByteAsDocumented)
{
   const auto store = Open();
   EXPECT_THROW(store->Create(0, 3), Corvax::InvalidArgumentException);
   EXPECT_THROW(store->Create(10, 0), Corvax::InvalidArgumentException);
   EXPECT_EQ(_scratch.Read("s.stats"), "");
   store->Create(10, 3);
   ASSERT_EQ(_scratch.Read("s.stats"), FromHex("03000000 0a000000 ff*24"));
   store->AddSample(0, 10, 1);
   store->AddSample(2, 10, 2);
   store->AddSample(0, 20, 3);
   store->AddSample(0, 30, 4);
   store->AddSample(0, 40, 5);                  // reuses the first column
   store->AddSample(2, 40, 0x0102030405060708); // its last column is reused
   EXPECT_TRUE(store->DeleteStat(0));
   EXPECT_FALSE(store->DeleteStat(3));
   const std::string wanted =
      "03000000 0a000000  2800000000000000 1400000000000000 1e00000000000000"
      "00000000 2800000000000000  0500000000000000 0300000000000000"
      "                           0400000000000000"
      " 00*36 "
      "01000000 2800000000000000  0807060504030201 ff*16";
   EXPECT_EQ(_scratch.Read("s.stats"), FromHex(wanted));
}

TEST_F(StatsStoreTest, LoadRefusesADamagedHeader)
{
   const std::string path = _scratch.Path() + "s.stats";
   const std::string size = "File Format Exception: Invalid file size for StatsStore " + path;
   const std::string header = "File Format Exception: Invalid header in StatsStore " + path;
   const std::tuple<const char*, std::string, std::string> cases[] = {
      {"empty", "", size},
      {"one byte short of a header", FromHex("03000000 0a0000"), size},
      {"one byte short of its columns", FromHex("03000000 0a000000 ff*23"), size},
      {"columns beyond 32 bits of bytes", FromHex("ffffff3f 0a000000 ff*64"), size},
      {"most columns", FromHex("ff*200"), size},
      {"no column", FromHex("00000000 0a000000 ff*24"), header},
      {"no period", FromHex("03000000 00000000 ff*24"), header},
      {"negative period", FromHex("03000000 ffffffff ff*24"), header},
      {"smallest valid", FromHex("03000000 0a000000 ff*24"), ""},
   };
   for (const auto& [name, bytes, message] : cases) {
      _scratch.Write("s.stats", bytes);
      EXPECT_EQ(MessageOf([this] { Open()->Load(); }), message) << name;
   }
}

} // namespace
