#include "tests/depotTool/depotFixture.h"

namespace {

using namespace DepotTool;

class DepotToolDamageTest : public DepotToolTest {
protected:
   /// Repairs each damage into another directory, which leaves the depot as it is.
   void Expect(const std::vector<Case>& cases)
   {
      for (const Case& damage : cases) {
         SCOPED_TRACE(damage.name);
         PlantAndCheck(damage);
         const auto before = _scratch.ReadAll();
         const Scratch repaired;
         Options options;
         options.toDir = repaired.Path();
         options.recompute = true;
         EXPECT_EQ(Run(Command::REPAIR, options), 0) << _out;
         EXPECT_EQ(_scratch.ReadAll(), before);
         EXPECT_EQ(Run(Command::CHECK, {}, repaired.Path()), 0) << _out;
         EXPECT_NO_THROW(Open(repaired.Path()));
      }
   }
};

TEST_F(DepotToolDamageTest, OfDescriptionAndStoreFilesIsFoundAndRepaired)
{
   Expect({
      {"none", "", [] {}},
      {"no description", "description.unusable*1", [&] { Delete("d.xml"); }},
      {"no interval", "description.unusable*1", [&] { _scratch.Write("d.xml", "<config/>"); }},
      {"a period", "description.unusable*1", [&] { Replace("d.xml", ">60<", ">50<"); }},
      {"a path", "description.storePath*1", [&] { Replace("d.xml", "d-20.stats", "e-20.stats"); }},
      {"a number", "description.columns*1", [&] { Replace("d.xml", ">12<", ">13<"); }},
      {"a leftover", "file.unused*1", [&] { _scratch.Write("d-40.stats", "x"); }},
      {"no store", "store.missing*1", [&] { Delete("d-20.stats"); }},
      {"a header alone", "store.unusable*1", [&] { CutTo("d-20.stats", 50); }},
      {"two numbers", "store.unusable*1",
       [&] {
          Poke("d-20.stats", 0, "\x0b");
          Replace("d.xml", ">12<", ">13<");
       }},
      {"number of columns", "store.header*1", [&] { Poke("d-20.stats", 0, "\x0d"); }},
      {"period in the store", "store.header*1", [&] { Poke("d-20.stats", 4, "\x15"); }},
      {"half a row", "store.partialRow*1", [&] { Poke("d-60.stats", 48 + 11 * 52, "half"); }},
   });
}

TEST_F(DepotToolDamageTest, OfColumnsIsFoundAndRepaired)
{
   const auto poke = [this](size_t column, uint64_t stamp) {
      Poke("d-20.stats", Metrix::StoreFormat::TimeStampPos(column), Encode64(stamp));
   };
   Expect({
      {"no multiple", "column.stamp*1", [=] { poke(3, 6301); }},
      {"older", "column.stamp*1", [=] { poke(3, 6180); }},
      {"equal", "column.stamp*1", [=] { poke(3, 6320); }},
      {"swapped", "column.stamp*1 rollup.value*1",
       [=] {
          poke(3, 6320);
          poke(4, 6300);
       }},
      {"unused", "column.unused*1", [=] { poke(3, ~uint64_t{0}); }},
      {"ahead of the clock", "column.stamp*1", [=] { poke(9, 20 << 20); }},
      // Rows are as new as the newest column was.
      {"newest is ahead", "column.stamp*1 row.stamp*3", [=] { poke(8, 7000); }},
      {"clock was set back", "column.stamp*4 row.stamp*11", [this] { _clock.SetSeconds(6280); }},
   });
}

TEST_F(DepotToolDamageTest, OfTheIdMapIsFoundAndRepaired)
{
   const auto poke = [this](size_t id, size_t field, const std::string& bytes) {
      Poke("d.idMap", RecordPos(id, field), bytes);
   };
   const std::string copied = [this] {
      WriteDepot();
      return _scratch.Read("d.idMap").substr(kRecordSize, kRecordSize);
   }();
   Expect({
      {"no id map", "idMap.missing*1 row.noRecord*11", [&] { Delete("d.idMap"); }},
      {"half a record", "idMap.partialRecord*1 row.noRecord*1",
       [&] { CutTo("d.idMap", 11 * kRecordSize - 1); }},
      {"rollup", "record.damaged*1 rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(1, 512, "\x06"); }},
      {"stat type", "record.damaged*1 rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(1, 516, "\x03"); }},
      {"name", "record.damaged*1 rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(1, 256, std::string(1, '\0')); }},
      {"endless name", "record.damaged*1 rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(1, 256, std::string(256, 'n')); }},
      {"duplicate", "record.duplicate*1", [&] { poke(11, 0, copied); }},
      {"factor", "record.mismatch*1", [&] { poke(1, 520, "\x02"); }},
      {"no raw series", "row.noRecord*3 stat.noRawSeries*2",
       [&] { poke(0, 0, std::string(256, '\0')); }},
      {"no rollup", "rollup.value*1 row.noRecord*1 stat.noRollup*1",
       [&] { poke(2, 0, std::string(256, '\0')); }},
   });
}

TEST_F(DepotToolDamageTest, OfRowsIsFoundAndRepaired)
{
   const auto poke = [this](size_t id, size_t field, const std::string& bytes) {
      Poke("d-20.stats", RowPos(id, field), bytes);
   };
   const size_t coarseSample = 48 + 1 * 52 + Metrix::StoreFormat::SamplePos(4); // at 6240
   Expect({
      {"flag", "row.flag*1", [=] { poke(0, 0, "\x02"); }},
      {"newer than all columns", "row.stamp*1", [=] { poke(0, 4, Encode64(kLast + 20)); }},
      {"unset", "row.stamp*1", [=] { poke(0, 4, Encode64(~uint64_t{0})); }},
      {"in no column", "row.stamp*1", [=] { poke(0, 4, Encode64(kLast - 30)); }},
      {"beyond the records", "row.noRecord*1", [=] { poke(12, 0, "\1" + std::string(107, '\0')); }},
      {"coarse sample", "rollup.value*1",
       [=, this] { Poke("d-60.stats", coarseSample, Encode64(1)); }},
      {"coarse row", "rollup.value*1",
       [=, this] { Poke("d-60.stats", 48 + 1 * 52, std::string(4, '\0')); }},
      {"fine rows, and so the stat", "stat.noSamples*1",
       [=, this] {
          poke(9, 0, std::string(4, '\0'));
          Poke("d-60.stats", 48 + 10 * 52, std::string(4, '\0'));
       }},
   });
}

} // namespace
