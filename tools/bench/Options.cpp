// Options: read by CLI11.
#include "bench/Options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <string>

namespace bench {

namespace {

void addOptions(CLI::App& command, const Bench& bench, Settings& settings) {
    command.add_option("--seconds", settings.seconds, "of each measurement; a million messages count as one")
        ->check(CLI::Range(0.05, 600.0))
        ->capture_default_str();
    command
        .add_option("--clients", settings.clients,
                    "clients, or receivers of messages (" + std::to_string(bench.clients) + ")")
        ->check(CLI::Range(1U, bench.most_clients));
    command.add_option("--rounds", settings.rounds, "measurements of each, of which medians are told")
        ->check(CLI::Range(1U, 100U))
        ->capture_default_str();
    if (std::string(bench.name) != "fanout") {
        command.add_option("--threads", settings.threads, "of each server, or of each pool")
            ->check(CLI::Range(1U, 64U))
            ->capture_default_str();
    }
    command.add_flag("--json", settings.json, "one line of JSON instead of a table");
}

}  // namespace

int readOptions(int argc, const char* const* argv, Settings& settings) {
    CLI::App app{
        "Measures what Reticor does on this machine beside other libraries: everybody does the same work, in "
        "turn, in processes of their own, on the loopback."};
    app.require_subcommand(1);
    for (const Bench& bench : allBenches()) {
        addOptions(*app.add_subcommand(bench.name, bench.what), bench, settings);
    }
    app.add_subcommand("list", "what there is to measure, and with whom");
    const auto names = app.get_subcommands(nullptr);
    if (argc >= 2 && argv[1][0] != '-' && std::none_of(names.begin(), names.end(), [&](const CLI::App* one) {
            return one->check_name(argv[1]);
        })) {
        return app.exit(CLI::ValidationError(std::string("there is no benchmark ") + argv[1] +
                                             "; there are echo, fanout and messages, and list"));
    }
    CLI11_PARSE(app, argc, argv);
    settings.bench = app.get_subcommands().front()->get_name();
    if (!(settings.seconds > 0)) {  // not a number, which stands within all bounds
        return app.exit(CLI::ValidationError("--seconds: is not a number"));
    }
    for (const Bench& bench : allBenches()) {
        if (settings.bench == bench.name && settings.clients == 0) {
            settings.clients = bench.clients;
        }
    }
    return -1;
}

}  // namespace bench
