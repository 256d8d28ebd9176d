#pragma once

#include "http/message.h"

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Http {

using Handler = std::function<void(const Request&, Response&)>;

/// Finds the handler for a method and path.
///
/// Invariant: if a path matches several patterns, the one with the fewest parameters wins.
/// Locking: none; any number of threads may call Find once the last route is added.
class Routes {
public:
   struct Match {
      const Handler* handler = nullptr; ///< null if no route has this path and method
      std::vector<std::string> parameters;
      std::string allow; ///< the methods of the path, for the Allow header; empty: unknown path
   };

   /// A segment of the pattern may be a {name}, which matches any segment that is not empty.
   /// InvalidArgumentException if it does not begin with "/" or is already added for this method.
   void Add(const std::string& method, std::string_view pattern, Handler handler);

   /// `segments` as DecodePath returns them. HEAD is looked up as GET.
   Match Find(std::string_view method, const std::vector<std::string>& segments) const;

private:
   struct Route {
      std::vector<std::string> segments; ///< empty for a parameter
      std::vector<bool> isParameter;
      std::map<std::string, Handler, std::less<>> handlers; ///< by method
   };

   static Route ParsePattern(std::string_view pattern);
   static bool Matches(const Route& route, const std::vector<std::string>& segments);

   std::vector<Route> _routes; ///< in ascending number of parameters
};

} // namespace Http
