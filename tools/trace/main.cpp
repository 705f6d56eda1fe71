// reticor-trace: makes of a dump of the flight recorder a picture that trace viewers open.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include <CLI/CLI.hpp>

#include "trace/ChromeTrace.h"
#include "trace/Dump.h"

namespace {

int fail(const std::string& what, const std::string& why) {
    std::cerr << "reticor-trace: " << what << ": " << why << "\n";
    return 1;
}

int convert(const std::string& input, const std::string& output) {
    std::ifstream file(input, std::ios::binary);
    if (!file) {
        return fail(input, std::strerror(errno));
    }
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad() || bytes.empty()) {
        return fail(input, "nothing can be read from it");
    }
    std::string why;
    const auto dump = trace::read_dump(bytes, why);
    if (!dump) {
        return fail(input, why);
    }
    std::ofstream made;
    if (!output.empty()) {
        made.open(output, std::ios::binary | std::ios::trunc);
        if (!made) {
            return fail(output, std::strerror(errno));
        }
    }
    std::ostream& out = output.empty() ? std::cout : made;
    const trace::Drawn drawn = write_chrome_trace(*dump, out);
    out.flush();
    if (!out) {
        return fail(output.empty() ? "standard output" : output, "it could not be written");
    }
    std::cerr << "reticor-trace: " << dump->threads.size() << " threads, " << drawn.events << " events, "
              << drawn.calls << " calls, " << drawn.waits << " waits, " << drawn.arrows << " arrows"
              << (dump->whole ? "" : "; the dump is not whole") << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Makes of a dump of the flight recorder Chrome trace JSON, which https://ui.perfetto.dev and "
        "other trace viewers open."};
    std::string input;
    std::string output;
    app.add_option("DUMP", input, "what CRecorder has written")->required();
    app.add_option("-o,--output", output, "the file to write; standard output unless given")
        ->type_name("FILE");
    CLI11_PARSE(app, argc, argv);
    return convert(input, output);
}
