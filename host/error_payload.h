#pragma once
// The one place where errors become the payloads a host reads: a failed
// request's "error" and an abort callback's "error".
//
//   OVError                 {"name":"OrvaneError","code","codeNumber","message","debugDescription"}
//   HVRPCEncodableError     its own payload
//   anything else           {"name":"NSError","errorDomain","errorCode","message","debugDescription"}

#include <exception>

#include "foundation/json_coding.h"

namespace ov::host {

coding::Json errorPayload(const std::exception& error);
// A null pointer gives an "unknown" NSError payload.
coding::Json errorPayload(const std::exception_ptr& error);

}  // namespace ov::host
