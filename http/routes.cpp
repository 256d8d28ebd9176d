#include "http/routes.h"

#include "corvax/format.h"

#include <algorithm>
#include <set>

namespace Http {

namespace {

std::string Join(const std::set<std::string_view>& methods)
{
   std::string joined;
   for (const std::string_view method : methods) {
      joined.append(joined.empty() ? "" : ", ").append(method);
   }
   return joined;
}

} // namespace

Routes::Route Routes::ParsePattern(std::string_view pattern)
{
   if (!pattern.starts_with('/')) {
      throw Corvax::InvalidArgumentException(
         Corvax::Format("The route \"%1\" does not begin with \"/\"", pattern));
   }
   Route route;
   route.segments = DecodePath(pattern);
   for (std::string& segment : route.segments) {
      const bool isParameter = segment.starts_with('{') && segment.ends_with('}');
      route.isParameter.push_back(isParameter);
      if (isParameter) {
         segment.clear(); // the name is not used
      }
   }
   return route;
}

void Routes::Add(const std::string& method, std::string_view pattern, Handler handler)
{
   Route route = ParsePattern(pattern);
   const auto parameters = std::ranges::count(route.isParameter, true);
   auto place = std::ranges::find_if(_routes, [&route](const Route& other) {
      return other.segments == route.segments && other.isParameter == route.isParameter;
   });
   if (place == _routes.end()) {
      place = std::ranges::find_if(_routes, [parameters](const Route& other) {
         return std::ranges::count(other.isParameter, true) > parameters;
      });
      place = _routes.insert(place, std::move(route));
   }
   Handler& own = place->handlers[method];
   if (own) {
      throw Corvax::InvalidArgumentException(
         Corvax::Format("%1 %2 already has a handler", method, pattern));
   }
   own = std::move(handler);
}

bool Routes::Matches(const Route& route, const std::vector<std::string>& segments)
{
   if (segments.size() != route.segments.size()) {
      return false;
   }
   for (size_t i = 0; i < segments.size(); ++i) {
      if (route.isParameter[i] ? segments[i].empty() : segments[i] != route.segments[i]) {
         return false;
      }
   }
   return true;
}

Routes::Match Routes::Find(std::string_view method, const std::vector<std::string>& segments) const
{
   Match match;
   std::set<std::string_view> allowed;
   for (const Route& route : _routes) {
      if (!Matches(route, segments)) {
         continue;
      }
      for (const auto& [name, handler] : route.handlers) {
         allowed.insert({name, "OPTIONS"});
         if (name == "GET") {
            allowed.insert("HEAD");
         }
      }
      const auto found = route.handlers.find(method == "HEAD" ? "GET" : method);
      if (found != route.handlers.end() && !match.handler) {
         match.handler = &found->second;
         for (size_t i = 0; i < segments.size(); ++i) {
            if (route.isParameter[i]) {
               match.parameters.push_back(segments[i]);
            }
         }
      }
   }
   match.allow = Join(allowed);
   return match;
}

} // namespace Http
