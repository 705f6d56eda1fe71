// Options: read by CLI11.
#include "top/Options.h"

#include <CLI/CLI.hpp>

namespace top {

int readOptions(int argc, const char* const* argv, Options& options) {
    std::string sort = "load";
    CLI::App app{
        "Shows what a process with Reticor does: pools, handlers, senders, what is wrong. It asks the socket "
        "of "
        "CNetThread::ServeStats, or a relay's page, and needs no worker of that process."};
    app.add_option("TARGET", options.target,
                   "path of a statistics socket, or http://HOST:PORT of a media relay")
        ->required();
    app.add_flag("--once", options.once, "look twice, print, and end; needs no terminal");
    app.add_flag("--json", options.json, "the same as one line of JSON, with rates and alarms");
    app.add_flag("--timing", options.timing, "have times of handlers measured while this program looks");
    app.add_option("--every", options.every_s, "seconds from look to look")
        ->check(CLI::Range(0.1, 60.0))
        ->capture_default_str();
    app.add_option("--sort", sort, "what comes first: the most load, total, size, or the name")
        ->check(CLI::IsMember({"load", "total", "size", "name"}))
        ->capture_default_str();
    app.add_option("--filter", options.view.filter, "show only rows that contain this");
    CLI11_PARSE(app, argc, argv);
    if (!(options.every_s > 0)) {  // not a number, which stands within all bounds
        return app.exit(CLI::ValidationError("--every: is not a number"));
    }
    for (const Order order : {Order::LOAD, Order::TOTAL, Order::SIZE, Order::NAME}) {
        if (sort == name_of(order)) {
            options.view.order = order;
        }
    }
    return -1;
}

}  // namespace top
