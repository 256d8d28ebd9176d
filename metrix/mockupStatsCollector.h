#pragma once

#include "metrix/baseStatsCollector.h"

namespace Metrix {

/// A collector for use without a kernel to read from: samples a fixed set of host counters, all 0.
class MockupStatsCollector : public BaseStatsCollector {
public:
   using BaseStatsCollector::BaseStatsCollector;

protected:
   void CollectStats(int64_t timeStamp) override;
   void StartInt() override {}
   void StopInt() override {}

private:
   void CollectHostCpuStats(int64_t timeStamp);
   void CollectHostMemStats(int64_t timeStamp);
   void CollectCpuLoadStats(const std::string& entityId, int64_t timeStamp);
};

} // namespace Metrix
