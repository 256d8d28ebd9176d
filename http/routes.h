#pragma once

#include "http/message.h"

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Http {

using Handler = std::function<void(const Request&, Response&)>;

/// Which handler a method and path belong to.
///
/// Invariant: of several patterns that a path fits, the one with the fewest parameters has it.
/// Locking: none; Find may be called by any number of threads once nothing is added any more.
class Routes {
public:
   struct Match {
      const Handler* handler = nullptr; ///< null when no route has this path and method
      std::vector<std::string> parameters;
      std::string allow; ///< the methods of the path, for the Allow header; empty: unknown path
   };

   /// A pattern is a path of which segments may be a {name}, which takes any segment but the empty
   /// one. InvalidArgumentException for one that does not begin with "/", or that is there already.
   void Add(const std::string& method, std::string_view pattern, Handler handler);

   /// `segments` as DecodePath gives them. HEAD is looked up as GET.
   Match Find(std::string_view method, const std::vector<std::string>& segments) const;

private:
   struct Route {
      std::vector<std::string> segments; // empty for a parameter
      std::vector<bool> isParameter;
      std::map<std::string, Handler, std::less<>> handlers; // by method
   };

   static Route ParsePattern(std::string_view pattern);
   static bool Fits(const Route& route, const std::vector<std::string>& segments);

   std::vector<Route> _routes; // in ascending number of parameters
};

} // namespace Http
