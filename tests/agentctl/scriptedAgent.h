#pragma once

#include "agentctl/api.h"
#include "agentctl/options.h"
#include "agentctl/output.h"
#include "agentctl/pace.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

/// Sends the responses that a test prepares and records the requests.
class ScriptedAgent : public Agentctl::HttpClient {
public:
   ScriptedAgent()
   {
      Respond("/api/v1/counters", R"([
         {"id":0,"group":"cpu","name":"usage","unit":"percent","statsType":"rate",
          "rollup":"none"},
         {"id":1,"group":"cpu","name":"usage","unit":"percent","statsType":"rate",
          "rollup":"average"},
         {"id":4,"group":"cpu","name":"usagemhz","unit":"megaHertz","statsType":"rate",
          "rollup":"none"},
         {"id":11,"group":"cpu","name":"ready","unit":"millisecond","statsType":"delta",
          "rollup":"summation"}])");
      Respond("/api/v1/providers/ha-host", R"({"refreshRate":20})");
   }

   Agentctl::HttpResponse Get(const std::string& target, const std::string& accept) override
   {
      requests.push_back(target);
      const bool isCsv = accept == Agentctl::kCsvType;
      const auto found = bodies.find((isCsv ? "csv:" : "") + target.substr(0, target.find('?')));
      if (found == bodies.end()) {
         return {404, R"({"status":"error","error":{"type":"x","message":"nothing\nthere"}})"};
      }
      const std::string body = found->second.front();
      if (found->second.size() > 1) { // the last one is repeated
         found->second.erase(found->second.begin());
      }
      return {200, body};
   }

   Agentctl::HttpResponse Post(const std::string& target, const std::string& json) override
   {
      lastBody = json;
      return Get(target, "");
   }

   /// Adds a successful response; those of one path are sent in order.
   void Respond(const std::string& path, const std::string& data)
   {
      bodies[path].push_back(R"({"status":"success","data":)" + data + "}");
   }

   std::map<std::string, std::vector<std::string>> bodies;
   std::vector<std::string> requests;
   std::string lastBody;
};

class TextOutput : public Agentctl::Output {
public:
   void Write(std::string_view added) override { text += added; }
   bool IsTerminal() const override { return isTerminal; }
   std::string text;
   bool isTerminal = false;
};

class AgentctlTest : public testing::Test {
public:
   ScriptedAgent agent;
   Agentctl::Api api{agent};
   TextOutput output;
   Agentctl::Options options;
   const Agentctl::WaitFunction noWait = [](int64_t) { return false; };
};

inline std::string ToJsonList(const std::vector<std::string>& elements)
{
   std::string list;
   for (const std::string& element : elements) {
      list += (list.empty() ? "" : ",") + element;
   }
   return "[" + list + "]";
}

/// `values` is a JSON list.
inline std::string SeriesJson(int counterId, const std::string& instance, const std::string& values)
{
   return R"({"id":{"counterId":)" + std::to_string(counterId) + R"(,"instance":")" + instance +
          R"("},"value":)" + values + "}";
}

/// The samples of an entity. Times are "09:05:00".
inline std::string EntityJson(const std::string& entityId, const std::vector<std::string>& times,
                              const std::vector<std::string>& series)
{
   std::vector<std::string> sampleInfo;
   sampleInfo.reserve(times.size());
   for (const std::string& time : times) {
      sampleInfo.push_back(R"({"timestamp":"2026-11-21T)" + time + R"(Z"})");
   }
   return R"({"entity":{"id":")" + entityId + R"("},"sampleInfo":)" + ToJsonList(sampleInfo) +
          R"(,"value":)" + ToJsonList(series) + "}";
}
