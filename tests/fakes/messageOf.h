#pragma once

#include "corvax/exception.h"

#include <string>

/// The text of what an action throws, empty when it throws nothing.
template <class Thrown = Corvax::Exception, class Action>
std::string MessageOf(const Action& action)
{
   try {
      action();
      return "";
   } catch (const Thrown& e) {
      return e.what();
   }
}
