#include "corvax/channel.h"
#include "corvax/dateTime.h"
#include "corvax/descriptor.h"
#include "corvax/lockable.h"
#include "corvax/objectRegistry.h"
#include "corvax/scheduler.h"
#include "corvax/system.h"
#include "corvax/xmlConfig.h"
#include "tests/fakes/captureLogger.h"
#include "tests/fakes/descriptorLimit.h"
#include "tests/fakes/manualTime.h"
#include "tests/fakes/messageOf.h"
#include "tests/fakes/scratch.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <future>

namespace {

using namespace Corvax;

TEST(DescriptorTest, TheReserveServesShortOpensWhenAllOthersAreTaken)
{
   FillDescriptorReserve();
   const DescriptorLimit limit(200);
   EXPECT_EQ(GetDescriptorShares().connections, 68);
   std::vector<BriefDescriptor> brief;
   std::vector<Descriptor> taken;
   const auto take = [&taken] {
      Descriptor one(::open("/dev/null", O_RDONLY | O_CLOEXEC));
      const bool isOpen = static_cast<bool>(one);
      taken.push_back(std::move(one));
      return isOpen;
   };
   while (take()) {
   }
   for (int i = 0; i < 100; ++i) {
      ASSERT_TRUE(OpenBriefly("/", O_RDONLY | O_DIRECTORY)) << "each is closed again at once";
   }
   EXPECT_FALSE(take()) << "the reserve is filled again at once";
   for (size_t i = 0; i < kReservedDescriptors; ++i) {
      BriefDescriptor held = OpenBriefly("/", O_RDONLY);
      ASSERT_TRUE(held);
      brief.push_back(std::move(held));
   }
   EXPECT_FALSE(OpenBriefly("/", O_RDONLY));
   EXPECT_EQ(errno, EMFILE);
   brief.clear();
   EXPECT_FALSE(take());
   EXPECT_TRUE(OpenBriefly("/", O_RDONLY));
   EXPECT_FALSE(OpenBriefly("/gone", O_RDONLY));
   EXPECT_EQ(errno, ENOENT);
   const DescriptorLimit tooLow(kOtherDescriptors);
   EXPECT_EQ(GetDescriptorShares().keptFiles, 0);
}

TEST(FormatTest, FillsPlacesInOnePass)
{
   EXPECT_EQ(Format("%2-%1%%3", "%2", -5), "-5-%2%%3");
   EXPECT_EQ(Format("%1 %2 %3", true, 18446744073709551615U, 0.5), "true 18446744073709551615 0.5");
   EXPECT_EQ(Format("100% of %1%", 'x' - 'w'), "100% of 1%");
}

TEST(LoggerTest, TakesLevelsByNumberAndName)
{
   for (const auto& [name, wanted] :
        {std::pair{"error", 3}, {"warning", 4}, {"7", 7}, {"trivia", 7}}) {
      int level = -1;
      EXPECT_TRUE(ParseLogLevel(name, level));
      EXPECT_EQ(level, wanted);
   }
   int level = -1;
   for (const char* const name : {"", "8", "-1", "loud", "77"}) {
      EXPECT_FALSE(ParseLogLevel(name, level));
   }
   const auto manager = NewLogManager();
   const auto logger = manager->GetLogger("a");
   EXPECT_EQ(logger, manager->GetLogger("a"));
   EXPECT_TRUE(logger->IsEnabled(6) && !logger->IsEnabled(7));
   logger->SetLevel("4");
   manager->SetDefaultLevel("debug"); // only for those whose level was not set
   EXPECT_FALSE(logger->IsEnabled(5));
   EXPECT_TRUE(manager->GetLogger("b")->IsEnabled(7));
   EXPECT_THROW(logger->SetLevel("loud"), InvalidArgumentException);
   testing::internal::CaptureStderr();
   logger->Log(3, "first%1second", "\n");
   logger->Log(5, "not this");
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "<3>a: first\\x0asecond\n");
}

TEST(DateTimeTest, WritesAndReadsInstantsInUtc)
{
   const std::pair<int64_t, std::string> same[] = {
      {0, "1970-01-01T00:00:00Z"},
      {1000000020000000, "2001-09-09T01:47:00Z"},
      {951782400500000, "2000-02-29T00:00:00.500000Z"},
      {-1, "1969-12-31T23:59:59.999999Z"},
      {253402300799000000, "9999-12-31T23:59:59Z"},
   };
   for (const auto& [us, text] : same) {
      EXPECT_EQ(DateTime(us).ToString(), text);
      DateTime parsed;
      EXPECT_TRUE(DateTime::Parse(text, parsed)) << text;
      EXPECT_EQ(parsed.GetUtcMicroseconds(), us);
   }
   EXPECT_EQ(DateTime(INT64_MAX).ToString(), "9223372036854775807");
   DateTime parsed;
   EXPECT_TRUE(DateTime::Parse("2000-02-29T01:30:00.1234567+01:30", parsed));
   EXPECT_EQ(parsed.GetUtcMicroseconds(), 951782400123456);
   for (const char* const bad :
        {"", "2001-02-29T00:00:00Z", "2001-01-01", "2001-01-01T24:00:00Z", "2001-01-01T00:00:00",
         "2001-01-01T00:00:00.Z", "2001-13-01T00:00:00Z", "2001-01-01T00:00:00Zx",
         "2001-01-01T00:00:00+1:00"}) {
      EXPECT_FALSE(DateTime::Parse(bad, parsed)) << bad;
   }
}

class XmlConfigTest : public testing::Test {
protected:
   Ref<XmlConfig> Open()
   {
      Ref<XmlConfig> config;
      GetXmlConfig(_scratch.Path() + "c.xml", config);
      return config;
   }
   const Scratch _scratch;
};

TEST_F(XmlConfigTest, KeepsKeysInOrderThroughItsFile)
{
   auto config = Open();
   EXPECT_EQ(config->AddElement("list", "item"), 0);
   EXPECT_EQ(config->AddElement("list", "item"), 1);
   config->Set("list/item[1]/name", "<&\">\xc3\xa4");
   config->Set("list/item[0]/count", "-7");
   config->Set("flag", "1");
   config->Save();
   config = Open();
   config->Read();
   std::vector<std::string> elements;
   ASSERT_TRUE(config->GetChildren("list", "item", elements));
   ASSERT_EQ(elements, (std::vector<std::string>{"item[0]", "item[1]"}));
   std::string text;
   EXPECT_TRUE(config->Get("list/item[1]/name", text));
   EXPECT_EQ(text, "<&\">\xc3\xa4");
   int32_t number = 5;
   EXPECT_TRUE(config->Get("list/item/count", number));
   EXPECT_EQ(number, -7);
   bool flag = false;
   EXPECT_TRUE(config->Get("flag", flag) && flag);
   for (const char* const absent :
        {"list/item[2]/name", "list/item[x]", "other", "list/item[0]/name"}) {
      EXPECT_FALSE(config->Get(absent, number));
   }
   EXPECT_EQ(number, -7);
   EXPECT_FALSE(config->GetChildren("nothing", "item", elements));
}

TEST_F(XmlConfigTest, SaysFileAndLineOfWhatIsWrong)
{
   _scratch.Write("c.xml", "<config>\n <a>\n  <n>12x</n>\n  <b>maybe</b>\n </a>\n</config>");
   const auto config = Open();
   config->Read();
   int32_t number = 0;
   bool flag = false;
   const std::string file = _scratch.Path() + "c.xml";
   EXPECT_EQ(MessageOf([&] { config->Get("a/n", number); }),
             file + ":3: '12x' is not an integer, as a/n must be");
   EXPECT_EQ(MessageOf([&] { config->Get("a/b", flag); }),
             file + ":4: 'maybe' is not \"true\" or \"false\", as a/b must be");
   ASSERT_EQ(config->GetKeys().size(), 2u);
   EXPECT_EQ(config->GetKeys()[1].path, "a/b");
   EXPECT_EQ(config->GetKeys()[1].line, 4);
   _scratch.Write("c.xml", "<config>\n<a>\n</config>");
   EXPECT_NE(MessageOf([&] { config->Read(); }).find(file + ":3: not well-formed XML"),
             std::string::npos);
   _scratch.Write("c.xml", "<config>" + std::string(300000, '<') + "a>");
   EXPECT_THROW(config->Read(), FileFormatException);
   EXPECT_EQ(config->GetKeys().size(), 2u); // the tree is unchanged
}

TEST(LockableTest, KnowsWhetherTheCallingThreadHoldsIt)
{
   struct Thing : LockableObjectImpl {};
   const auto thing = MakeRef<Thing>();
   EXPECT_THROW(thing->Unlock(), AssertionException);
   thing->Lock();
   thing->Lock();
   thing->Unlock();
   EXPECT_TRUE(thing->IsLocked());
   EXPECT_FALSE(std::async(std::launch::async, [&] { return thing->IsLocked(); }).get());
   EXPECT_THROW(std::async(std::launch::async, [&] { thing->Unlock(); }).get(), AssertionException);
   thing->Unlock();
}

/// Notes what it is called with, in order.
struct Notebook : ObjectImpl {
   void Note(ChannelReader* /*reader*/, Object* object)
   {
      if (failing) {
         failing = false;
         throw Exception("the handler's own");
      }
      seen.push_back(object);
   }
   void Call()
   {
      ++calls;
      if (calls == failAtCall) {
         throw Exception("the functor's own");
      }
      if (calls < wanted) {
         System::GetThisThread().ScheduleOnce(MakeFunctor(this, &Notebook::Call), 0);
      }
   }
   std::vector<Object*> seen;
   bool failing = false;
   int calls = 0;
   int failAtCall = 0;
   int wanted = 1;
};

TEST(ChannelTest, DeliversInOrderByPathUntilClosed)
{
   const auto logger = MakeRef<CaptureLogger>();
   const auto channels = NewMessageChannels(logger);
   const auto below = MakeRef<Notebook>();
   const auto exact = MakeRef<Notebook>();
   const auto belowReader = channels->Subscribe("/vm/", MakeFunctor(below.Get(), &Notebook::Note));
   const auto exactReader = channels->Subscribe("/vm/a", MakeFunctor(exact.Get(), &Notebook::Note));
   struct Message : ObjectImpl {};
   const RefVector<Object> messages = {MakeRef<Message>(), MakeRef<Message>(), MakeRef<Message>()};
   channels->Publish("/vm/a", messages[0]);
   channels->Publish("/vm/b", messages[1]);
   channels->Publish("/vmx", messages[2]);
   channels->Drain();
   EXPECT_EQ(below->seen, (std::vector<Object*>{messages[0].Get(), messages[1].Get()}));
   EXPECT_EQ(exact->seen, (std::vector<Object*>{messages[0].Get()}));
   exactReader->Close();
   exactReader->Close();
   below->failing = true;
   channels->Publish("/vm/a", messages[2]);
   channels->Publish("/vm/a", messages[0]);
   channels->Drain();
   EXPECT_EQ(logger->Count("3 A message handler failed: the handler's own"), 1);
   EXPECT_EQ(below->seen.size(), 3u);
   EXPECT_EQ(exact->seen.size(), 1u);
}

TEST(TimerThreadTest, AnItemRunsAfterItsDelayThoughTheWallClockWasSetBack)
{
   ManualClock clock;
   clock.SetSeconds(1000);
   std::promise<TimerRun> ran;
   const auto notes = MakeRef<Notebook>();
   const auto timer = NewTimerThread("test", [&](const TimerRun& run) { ran.set_value(run); });
   timer->ScheduleOnce(MakeFunctor(notes.Get(), &Notebook::Call), 20 * kMicrosecondsPerSecond);
   clock.SetSeconds(400);
   clock.monotonicUs = 22 * kMicrosecondsPerSecond;
   const TimerRun run = ran.get_future().get();
   EXPECT_EQ(run.dueUs, 1020 * kMicrosecondsPerSecond);
   EXPECT_EQ(run.startUs, 400 * kMicrosecondsPerSecond);
   timer->Stop();
}

TEST(TimerThreadTest, CallsEachFunctorOnceAndGoesOnAfterAFailure)
{
   std::promise<void> done;
   std::vector<std::string> errors;
   const auto notes = MakeRef<Notebook>();
   notes->wanted = 3;
   notes->failAtCall = 4;
   const auto timer = NewTimerThread("test", [&](const TimerRun& run) {
      errors.push_back(run.error);
      EXPECT_LE(run.dueUs, run.startUs);
      if (errors.size() == 5) {
         EXPECT_FALSE(run.morePending);
         done.set_value();
      }
   });
   const auto later = timer->ScheduleOnce(MakeFunctor(notes.Get(), &Notebook::Call), 3600000000);
   EXPECT_TRUE(later->IsPending());
   EXPECT_TRUE(later->Cancel());
   EXPECT_FALSE(later->IsPending() || later->Cancel());
   // The third to run, after two chained ones.
   timer->ScheduleOnce(MakeFunctor(notes.Get(), &Notebook::Call), 2000);
   timer->ScheduleOnce(MakeFunctor(notes.Get(), &Notebook::Call), 4000);
   const auto last = timer->ScheduleOnce(MakeFunctor(notes.Get(), &Notebook::Call), 6000);
   done.get_future().wait();
   EXPECT_EQ(notes->calls, 5);
   EXPECT_EQ(std::ranges::count(errors, "the functor's own"), 1);
   EXPECT_FALSE(last->Cancel());
   timer->ScheduleOnce(MakeFunctor(notes.Get(), &Notebook::Call), 3600000000);
   timer->Stop();
   EXPECT_THROW(timer->ScheduleOnce(MakeFunctor(notes.Get(), &Notebook::Call), 0),
                AssertionException);
   EXPECT_EQ(notes->calls, 5);
}

} // namespace
