#pragma once

#include <cstdint>

/// The ids by which the API names its counters. They never change: clients store them.
///
/// The high 16 bits number the group, the low 16 bits the counter within it. A composite counter is
/// followed by its three derived counters: + 1 average, + 2 maximum, + 3 minimum. 0x1001C to
/// 0x1001F are never to be used.
namespace Metrix {

constexpr int32_t kCpuUsage = 0x00000;
constexpr int32_t kCpuUsageMhz = 0x00004;
constexpr int32_t kCpuReservedCapacity = 0x00008;
constexpr int32_t kCpuSystem = 0x00009;
constexpr int32_t kCpuWait = 0x0000A;
constexpr int32_t kCpuReady = 0x0000B;
constexpr int32_t kCpuExtra = 0x0000C;
constexpr int32_t kCpuGuaranteed = 0x0000D;
constexpr int32_t kCpuUsed = 0x0000E;
constexpr int32_t kCpuIdle = 0x0000F;

constexpr int32_t kMemUsage = 0x10000;
constexpr int32_t kMemGranted = 0x10004;
constexpr int32_t kMemActive = 0x10008;
constexpr int32_t kMemShared = 0x1000C;
constexpr int32_t kMemZero = 0x10010;
constexpr int32_t kMemUnreserved = 0x10014;
constexpr int32_t kMemSwapUsed = 0x10018;
constexpr int32_t kMemSharedCommon = 0x10020;
constexpr int32_t kMemHeap = 0x10024;
constexpr int32_t kMemHeapFree = 0x10028;
constexpr int32_t kMemState = 0x1002C;
constexpr int32_t kMemVmmemctl = 0x1002D;
constexpr int32_t kMemOverhead = 0x10031;
constexpr int32_t kMemReservedCapacity = 0x10035;
constexpr int32_t kMemSwapped = 0x10036;
constexpr int32_t kMemSwapTarget = 0x1003A;
constexpr int32_t kMemSwapIn = 0x1003E;
constexpr int32_t kMemSwapOut = 0x10042;
constexpr int32_t kMemVmmemctlTarget = 0x10046;
constexpr int32_t kMemConsumed = 0x1004A;
constexpr int32_t kMemSysUsage = 0x1004E;

constexpr int32_t kDiskUsage = 0x20000;
constexpr int32_t kDiskNumberRead = 0x20004;
constexpr int32_t kDiskNumberWrite = 0x20005;
constexpr int32_t kDiskRead = 0x20006;
constexpr int32_t kDiskWrite = 0x20007;
constexpr int32_t kDiskCommands = 0x20008;
constexpr int32_t kDiskCommandsAborted = 0x20009;
constexpr int32_t kDiskBusResets = 0x2000A;

constexpr int32_t kNetUsage = 0x30000;
constexpr int32_t kNetPacketsRx = 0x30004;
constexpr int32_t kNetPacketsTx = 0x30005;
constexpr int32_t kNetReceived = 0x30006;
constexpr int32_t kNetTransmitted = 0x30007;

constexpr int32_t kSysUptime = 0x40000;
constexpr int32_t kSysHeartbeat = 0x40001;
constexpr int32_t kSysResourceCpuUsage = 0x40002;

// The nine averages and active peaks are consecutive: kRescpuActav1 to kRescpuRunav15.
constexpr int32_t kRescpuActav1 = 0x50000;
constexpr int32_t kRescpuActpk1 = 0x50001;
constexpr int32_t kRescpuRunav1 = 0x50002;
constexpr int32_t kRescpuActav5 = 0x50003;
constexpr int32_t kRescpuActpk5 = 0x50004;
constexpr int32_t kRescpuRunav5 = 0x50005;
constexpr int32_t kRescpuActav15 = 0x50006;
constexpr int32_t kRescpuActpk15 = 0x50007;
constexpr int32_t kRescpuRunav15 = 0x50008;
constexpr int32_t kRescpuRunpk1 = 0x50009;
constexpr int32_t kRescpuMaxLimited1 = 0x5000A;
constexpr int32_t kRescpuRunpk5 = 0x5000B;
constexpr int32_t kRescpuMaxLimited5 = 0x5000C;
constexpr int32_t kRescpuRunpk15 = 0x5000D;
constexpr int32_t kRescpuMaxLimited15 = 0x5000E;
constexpr int32_t kRescpuSampleCount = 0x5000F;
constexpr int32_t kRescpuSamplePeriod = 0x50010;

} // namespace Metrix
