#pragma once

#include "corvax/dateTime.h"
#include "http/message.h"

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ManagementApi {

/// The query parameters of a request, which must outlive the object.
///
/// Errors: Refusal 400 that names the parameter: from the constructor for one that is not allowed,
/// from every getter but GetAll for one that is given twice, missing or malformed.
class UrlParameters {
public:
   UrlParameters(const Http::Request& request, std::initializer_list<std::string_view> allowed);

   std::vector<std::string> GetAll(std::string_view name) const;
   std::optional<std::string> Get(const std::string& name) const;
   std::string GetRequired(const std::string& name) const;
   std::optional<Corvax::DateTime> GetTime(const std::string& name, Corvax::DateTime now) const;
   std::optional<int32_t> GetInt(const std::string& name) const;

private:
   const Http::Fields& _query;
};

} // namespace ManagementApi
