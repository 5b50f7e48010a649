#include "Config.h"
#include "Log.h"
#include "Server.h"

#include <cstdio>
#include <iostream>

int main(int argc, char** argv) {
    using namespace tavelo::cloud;
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const auto parsed = parseArguments(arguments);
    if (parsed.showHelp) {
        std::cout << helpText();
        return 0;
    }
    if (parsed.error) {
        std::cerr << "tavelo-cloud: " << *parsed.error << "\n";
        return 2;
    }
    if (auto problem = parsed.config.problem()) {
        std::cerr << "tavelo-cloud: " << *problem << "\n";
        return 2;
    }
    const std::string& level = parsed.config.logLevel;
    setLogLevel(level == "debug" ? LogLevel::debug : level == "warning" ? LogLevel::warning
                                                 : level == "error"   ? LogLevel::error
                                                                      : LogLevel::info);
    return runServer(parsed.config);
}
