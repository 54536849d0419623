// Drives the built plug-in as a host does: the two doubles stand in for the libraries
// that it opens, the three entry points are looked up by name.
#ifndef CORVANE_TESTS_PLUGIN_TEST_H
#define CORVANE_TESTS_PLUGIN_TEST_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/opened_library.h"
#include "doubles/engine_double.h"
#include "doubles/params_double.h"
#include "support/capture.h"

namespace support {

using doubles::Pairs;

// The doubles' files: the whole ones, and those that lack one function.
std::string engineDouble();
std::string paramsDouble();
std::string engineLacking(const std::string& function);
std::string paramsLacking(const std::string& function);

// A library loaded by path; nothing is loaded for the empty path.
class Library {
public:
    explicit Library(const std::string& path);
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    // Closes it as often as it takes: other handles may have been forgotten, and a
    // library that stays would be found again by its bare name.
    ~Library();

    // Throws a LoadError if the library lacks it.
    template <class Function>
    Function find(const char* name) const
    {
        Function function = nullptr;
        bindFunction(m_library, function, name);
        return function;
    }

private:
    std::string m_path;
    OpenedLibrary m_library;
};

// The journal and the doubles, loaded and attached. As long as it lives, the plug-in
// finds them by their bare names, and syslog and loader calls go into the journal. An
// empty path leaves a library out. One at a time.
class Stage {
public:
    explicit Stage(const std::string& enginePath = engineDouble(),
                   const std::string& paramsPath = paramsDouble());
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;
    ~Stage();

    // Puts another library in place of the present one, which is closed completely.
    void changeEngine(const std::string& path);
    void changeParams(const std::string& path);

    doubles::Journal journal;
    doubles::EngineDouble engine;
    doubles::ParamsDouble params;

private:
    std::unique_ptr<Library> engineLibrary;
    std::unique_ptr<Library> paramsLibrary;
    std::unique_ptr<SystemCapture> capture;
};

// A stage with the plug-in on it, loaded but not initialised. Its process-wide state is
// fresh unless the test program links the plug-in.
class PluginHost : public Stage {
public:
    using Stage::Stage;

    // Each empties the journal first, and leaves what was printed in `printed`.
    int init();
    int free();
    int requestBytes(const char* name, unsigned int len);

    // Stores the parameters, sends the request, returns the results in order. Results
    // and custom text of an earlier request are in the stores beforehand, so that a
    // plug-in that did not empty them shows.
    Pairs request(const std::string& name, const Pairs& parameters = {});

    // The parameters that the last request read and the results that it wrote, in order.
    std::vector<std::string> parametersRead() const;
    Pairs resultsWritten() const;

    int& logLevel();

    template <class Function>
    Function find(const char* symbol) const
    {
        return plugin.find<Function>(symbol);
    }

    std::string printed;

private:
    Library plugin{CORVANE_PLUGIN_LIBRARY};
};

// An initialised plug-in. After each test every key pair and certificate that the
// engine gave out must have been freed, once.
class PluginTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Also expects that the request parameters are gone and that nothing was printed.
    Pairs request(const std::string& name, const Pairs& parameters = {});

    PluginHost host;
    doubles::Journal& journal = host.journal;
    doubles::EngineDouble& engine = host.engine;
    doubles::ParamsDouble& params = host.params;
};

}  // namespace support

using doubles::Call;
using doubles::Pairs;
using support::PluginTest;

#endif
