#include "managementApi/urlParameters.h"

#include "managementApi/requestText.h"

#include <algorithm>

namespace ManagementApi {

UrlParameters::UrlParameters(const Http::Request& request,
                             std::initializer_list<std::string_view> allowed)
   : _query(request.query)
{
   for (const auto& [name, value] : _query) {
      if (std::ranges::find(allowed, name) == allowed.end()) {
         throw BadArgument(name, "is not a parameter of this route");
      }
   }
}

std::vector<std::string> UrlParameters::GetAll(std::string_view name) const
{
   std::vector<std::string> values;
   for (const auto& [present, value] : _query) {
      if (present == name) {
         values.push_back(value);
      }
   }
   return values;
}

std::optional<std::string> UrlParameters::Get(const std::string& name) const
{
   const std::vector<std::string> values = GetAll(name);
   if (values.size() > 1) {
      throw BadArgument(name, "is given twice");
   }
   return values.empty() ? std::nullopt : std::optional(values.front());
}

std::string UrlParameters::GetRequired(const std::string& name) const
{
   const std::optional<std::string> value = Get(name);
   if (!value) {
      throw BadArgument(name, "is missing");
   }
   return *value;
}

std::optional<Corvax::DateTime> UrlParameters::GetTime(const std::string& name,
                                                       Corvax::DateTime now) const
{
   const std::optional<std::string> value = Get(name);
   return value ? std::optional(ParseTime(name, *value, now)) : std::nullopt;
}

std::optional<int32_t> UrlParameters::GetInt(const std::string& name) const
{
   const std::optional<std::string> value = Get(name);
   return value ? std::optional(ParseInt(name, *value)) : std::nullopt;
}

} // namespace ManagementApi
