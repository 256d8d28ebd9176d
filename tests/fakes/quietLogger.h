#pragma once

#include "corvax/logger.h"

#include <string>

/// Keeps nothing.
class QuietLogger : public Corvax::Logger, public Corvax::ObjectImpl {
public:
   bool IsEnabled(int /*level*/) const override { return false; }
   void SetLevel(const std::string& /*levelName*/) override {}
   void Write(int /*level*/, const std::string& /*text*/) override {}
};
