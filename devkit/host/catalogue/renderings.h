// The catalogue as programs read it, and as a document.
#ifndef CORVANE_HOST_CATALOGUE_RENDERINGS_H
#define CORVANE_HOST_CATALOGUE_RENDERINGS_H

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "catalogue.h"
#include "error_codes.h"

nlohmann::ordered_json toJson(const RequestInfo& request);
nlohmann::ordered_json toJson(const ErrorCode& code);
// {"version", "requests", "codes", "hostCodes", "warnings"}: all there is.
nlohmann::ordered_json catalogueJson();

// docs/requests.md.
std::string requestsDocument();

#endif
