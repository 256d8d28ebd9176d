#pragma once

namespace ManagementApi {

/// The OpenAPI 3.0 document of the management API: the text of openapi.json.
extern const char kOpenApi[];

} // namespace ManagementApi
