#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>

/// A random seed, printed as METRIX_SEED; the environment's if it has one of that name.
inline uint64_t NewSeed()
{
   const char* const fixed = std::getenv("METRIX_SEED");
   const uint64_t seed = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device{}();
   std::cout << "METRIX_SEED=" << seed << "\n";
   return seed;
}
