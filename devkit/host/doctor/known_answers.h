// A test of each request with an answer that is known beforehand.
//
// Algorithms have the development engine's numbers. With another engine a different answer
// is only noted, if what goes in comes out again where the request has an inverse.
#ifndef CORVANE_HOST_DOCTOR_KNOWN_ANSWERS_H
#define CORVANE_HOST_DOCTOR_KNOWN_ANSWERS_H

#include <vector>

#include "library_checks.h"

// One check for each request of the catalogue, in its order.
std::vector<Check> requestChecks(Subject& subject);

#endif
