#pragma once

#include "http/message.h"
#include "managementApi/requestText.h"
#include "quen/performanceManager.h"

#include <cstddef>
#include <string>

/// Query specs in requests, from URL parameters and from JSON. Their values are checked by the
/// performance manager; only their form is checked here, and unknown counters with the instance
/// "*", which it does not refuse.
///
/// Errors: Refusal 400 that names the parameter or field ("[0].metricId[2].counterId"), unknown
/// ones included; 404 for an unknown entity.
namespace ManagementApi {

using QuerySpec = Quen::PerformanceManager::QuerySpec;
using QuerySpecs = Plexa::DataArray<QuerySpec>;

/// The one query spec in a URL's parameters.
Corvax::Ref<QuerySpecs> ReadQuerySpec(const Http::Request& request, const Counters& counters);

/// A body: a JSON array of at most `maxQuerySpecs`, with at most 1000 metrics in all.
Corvax::Ref<QuerySpecs> ParseQuerySpecs(const std::string& body, size_t maxQuerySpecs,
                                        const Counters& counters);

} // namespace ManagementApi
