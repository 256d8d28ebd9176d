#pragma once

#include "corvax/exception.h"

#include <string>

/// The message of the exception that an action throws; empty when it throws none.
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
