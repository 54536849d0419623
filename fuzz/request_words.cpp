// Prints the part of the request fuzzer's dictionary that the catalogue tells: whole lines
// that send the requests, and beginnings of those that store their parameters.
#include <cstdio>
#include <set>
#include <string>

#include "host/catalogue/catalogue.h"

int main()
{
    std::set<std::string> seen;
    for (const RequestInfo& request : catalogue()) {
        printf("\"\\x0Aq%s\\x0A\"\n", request.name);
        for (const Parameter& parameter : request.parameters)
            if (seen.insert(parameter.name).second)
                printf("\"\\x0Ap%s=\"\n", parameter.name);
    }
}
