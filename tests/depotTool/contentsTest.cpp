#include "tests/depotTool/depotFixture.h"

#include <set>

namespace {

using namespace DepotTool;

TEST_F(DepotToolTest, FindingsSayFilePlaceFaultAndRemedy)
{
   WriteDepot();
   Poke("d-20.stats", RowPos(1, 0), std::string("\1\0\0\0", 4));
   Poke("d.idMap", RecordPos(1, 0), std::string(256, '\0'));
   EXPECT_EQ(Run(Command::CHECK), 1);
   EXPECT_NE(_out.find("d-60.stats: row 1, offset 100: it is in use, but the id map has no record "
                       "of it; repair: the row is freed\n"),
             std::string::npos)
      << _out;
}

TEST_F(DepotToolTest, RepairInPlaceNeedsTheLockAndRecomputesOnRequestOnly)
{
   WriteDepot();
   const std::string sound = Dump();
   Poke("d-60.stats", 48 + 52 + Metrix::StoreFormat::SamplePos(4), Encode64(1));
   Options options;
   options.inPlace = true;
   {
      const auto lock = Corvax::System::GetFactory().Lock(_scratch.Path() + "d.lock");
      EXPECT_NE(MessageOf([&] { Run(Command::REPAIR, options); }).find("locked"),
                std::string::npos);
   }
   EXPECT_EQ(Run(Command::REPAIR, options), 1);
   EXPECT_NE(Dump(), sound);
   options.recompute = true;
   EXPECT_EQ(Run(Command::REPAIR, options), 0);
   EXPECT_EQ(Dump(), sound);
}

TEST_F(DepotToolTest, DumpOfARestoredDepotIsTheSame)
{
   WriteDepot("odd \\name\n#\xff");
   const std::string dump = Dump();
   EXPECT_NE(dump.find("\nstat host odd\\x20\\x5cname\\x0a#\\xff absolute 1 none last\n"
                       "samples RealTime none\n6180 263 403"),
             std::string::npos)
      << dump;
   EXPECT_NE(
      dump.find("\nstat vm-1 cpu#0 absolute 1 none average maximum\n"
                "samples RealTime none\n6180 261 401\n6240 681 821 961 101 241 381 521 661\n"),
      std::string::npos) // nothing at 6400, where the row has an older sample
      << dump;
   const Scratch restored;
   ASSERT_EQ(Restore(dump, restored.Path()), 0);
   EXPECT_EQ(Dump(restored.Path()), dump);
   EXPECT_EQ(Check(restored.Path()), "");
   EXPECT_NO_THROW(Open(restored.Path()));
   EXPECT_NE(MessageOf([&] { Restore(dump, restored.Path()); }).find("already"), std::string::npos);
}

TEST_F(DepotToolTest, RestoreNamesTheLineThatIsWrong)
{
   const std::string first = "metrix-depot dump 1\ninterval a 20 3\ncolumns 20 2\n";
   const std::string stat = "stat e s absolute 1 none\nsamples a none\n";
   const std::pair<std::string, std::string> cases[] = {
      {"metrix-depot dump 2\n", "line 1"},
      {first, "cut off after line 3"},
      {first + "end 0", "cut off after line 3"},
      {first + "end 1\n", "line 4"},
      {first + "end 0\nend 0\n", "line 5"},
      {first + "interval b 30 3\n", "line 4"},
      {first + "columns 40 1\n", "line 4"},
      {first + "columns 60 2\n", "line 4"},
      {first + "20 1\n", "line 4"},
      {first + stat + "60 1\n", "line 6"},
      {first + stat + "20 x\n", "line 6"},
      {first + stat + "20 1 2\nstat e s absolute 1 none\n", "line 7"},
      {first + "stat e \\x0 absolute 1 none\n", "line 4"},
      {first + "stat e s absolute 1 sum\n", "line 4"},
      {first + stat + "samples b none\n", "line 6"},
   };
   for (const auto& [dump, complaint] : cases) {
      EXPECT_NE(MessageOf([&] { Restore(dump, _scratch.Path()); }).find(complaint),
                std::string::npos)
         << dump;
      EXPECT_EQ(_scratch.ReadAll().size(), 1u); // the dump
   }
}

TEST_F(DepotToolTest, ExportGroupsTheSamplesOfAFamily)
{
   WriteDepot("cp\xffu"); // the same family as another one would be "cp_u"
   Options options;
   options.openMetrics = true;
   options.intervalName = "1min";
   ASSERT_EQ(Run(Command::EXPORT, options), 0);
   std::istringstream lines(_out);
   std::set<std::string> families;
   std::set<std::string> series;
   std::string family;
   std::string labels;
   uint64_t time = 0;
   for (std::string line; std::getline(lines, line) && line != "# EOF";) {
      if (line.starts_with("# TYPE ")) {
         family = line.substr(7, line.find(' ', 7) - 7);
         EXPECT_TRUE(families.insert(family).second) << line;
         continue;
      }
      std::string name;
      uint64_t value = 0;
      uint64_t ts = 0;
      std::istringstream(line) >> name >> value >> ts;
      EXPECT_TRUE(name.starts_with(family + "{")) << line;
      EXPECT_TRUE(name == labels ? ts > time : series.insert(name).second) << line;
      labels = name;
      time = ts;
   }
   EXPECT_TRUE(_out.ends_with("\n# EOF\n"));
   EXPECT_EQ(families, (std::set<std::string>{"metrix_cpu", "metrix_cp_u"}));
   EXPECT_EQ(series.size(), 7u);
   EXPECT_NE(
      _out.find("\nmetrix_cpu{entity=\"vm-1\",instance=\"1\",rollup=\"maximum\"} 982 6180\n"),
      std::string::npos)
      << _out;
   options.intervalName = "2min";
   EXPECT_THROW(Run(Command::EXPORT, options), Corvax::InvalidArgumentException);
}

TEST_F(DepotToolTest, InfoShowsSizeAndHistory)
{
   WriteDepot();
   Options options;
   options.json = true;
   ASSERT_EQ(Run(Command::INFO, options), 0);
   const nlohmann::json info = nlohmann::json::parse(_out);
   EXPECT_EQ(info["stats"], 4);
   EXPECT_EQ(info["series"], 11);
   EXPECT_EQ(info["intervals"][0]["newest"], kLast);
   EXPECT_EQ(info["intervals"][1]["fullBytes"], 48 + 11 * 52);
}

TEST_F(DepotToolTest, CopiesAreOfOneMomentOrBusy)
{
   WriteDepot();
   std::map<std::string, std::string> states[2] = {_scratch.ReadAll()};
   Open(_scratch.Path())->DeleteEntityStats("vm-2");
   states[1] = _scratch.ReadAll();
   size_t changes = 0;
   BusyFiles files([&] {
      for (const auto& [file, content] : states[changes++ % 2]) {
         _scratch.Write(file, content);
      }
   });
   files.changes = 8; // in the first two attempts
   EXPECT_EQ(Check(), "");
   EXPECT_EQ(files.changes, 0);
   files.changes = 1000;
   EXPECT_NE(MessageOf([&] { Check(); }).find("busy"), std::string::npos);
}

} // namespace
