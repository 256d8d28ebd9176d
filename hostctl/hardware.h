#pragma once

#include <cstdint>
#include <vector>

/// The host's hardware. Ownership: the caller owns every raw pointer that is returned.
/// Errors: Lib::HostCtlException from every operation.
namespace HostCtl::Hardware {

class Cpu {
public:
   virtual ~Cpu();
   virtual uint64_t GetSpeedHz() = 0;
};

class CpuInfo {
public:
   virtual ~CpuInfo();
   /// Number of CPUs that can run at once, at least 1.
   virtual uint32_t GetCoreCount() = 0;
   /// At least one.
   virtual std::vector<Cpu*> GetCpus() = 0;
};

class MemoryInfo {
public:
   virtual ~MemoryInfo();
   virtual uint64_t GetPhysicalBytes() = 0;
};

class HardwareInfo {
public:
   virtual ~HardwareInfo();
   virtual CpuInfo* GetCpuInfo() = 0;
   virtual MemoryInfo* GetMemoryInfo() = 0;
};

} // namespace HostCtl::Hardware
