#pragma once

namespace ManagementApi {

/// The OpenAPI 3.0 document of the management API: openapi.json of this room.
extern const char kOpenApi[];

} // namespace ManagementApi
