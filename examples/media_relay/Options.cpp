// Options: the command line of media_relay.

#include "media_relay/Options.h"

#include <algorithm>

#include <CLI/CLI.hpp>

#include <Reticor/PoolSet.h>
#include <Reticor/StrParser.h>

#include "media_relay/http/PublishAccess.h"
#include "media_relay/stream/StreamName.h"

namespace relay {

namespace {

using Orvex::Reticor::CPoolSet;
using Orvex::Reticor::CStrParser;

constexpr unsigned PER_POOL = 4000;  // live clients; what is left of its places is for other requests

/// "239.1.2.3:5004" or "[ff15::1]:5004". The result is empty, or what is wrong.
std::string parseTarget(const std::string& text, std::string& ip, unsigned short& port) {
    CStrParser parser((text + "\n").c_str());  // a number at the very end would leave the cursor after it
    char address[64] = {};
    int family = -1;
    if (parser.ConsumeIpAddr(address, sizeof address, &family) < 1 || family == -1 ||
        parser.Expect(':') == -1) {
        return "is no IP:PORT";
    }
    const unsigned number = parser.ConsumeUint32();
    if (parser.GetStatus() != 0 || parser.GetCurChar() != '\n' || number < 1 || number > 65535) {
        return "has no port from 1 to 65535";
    }
    ip = address;
    port = static_cast<unsigned short>(number);
    return "";
}

/// "640x360": even numbers, since colours are stored for squares of two pixels.
std::string parseSize(const std::string& text, unsigned& width, unsigned& height) {
    CStrParser parser((text + "\n").c_str());
    const unsigned x = parser.ConsumeUint32();
    const bool good = parser.GetStatus() == 0 && parser.Expect('x') != -1;
    const unsigned y = parser.ConsumeUint32();
    if (!good || parser.GetStatus() != 0 || parser.GetCurChar() != '\n' || x < 160 || x > 3840 || y < 120 ||
        y > 2160 || x % 2 != 0 || y % 2 != 0) {
        return "is no size like 640x360, of even numbers from 160x120 to 3840x2160";
    }
    width = x;
    height = y;
    return "";
}

/// "NAME=INPUT". The result is empty, or what is wrong.
std::string parseStream(const std::string& text, const Options& options, StreamOption& stream) {
    const std::string sized = "test:";  // and the size of the picture
    const size_t sign = text.find('=');
    if (sign == std::string::npos || sign + 1 == text.size()) {
        return "is no NAME=INPUT";
    }
    stream = {text.substr(0, sign), text.substr(sign + 1), options.width, options.height};
    std::string wrong = checkStreamName(stream.name);
    if (!wrong.empty()) {
        return "begins with what " + wrong;
    }
    if (stream.input.compare(0, sized.size(), sized) == 0) {
        wrong = parseSize(stream.input.substr(sized.size()), stream.width, stream.height);
        stream.input = "test";
        return wrong.empty() ? "" : "names a picture whose size " + wrong;
    }
    return "";
}

/// Fills the list of all streams. The result is empty, or what is wrong.
std::string collectStreams(const std::vector<std::string>& texts, bool withInput, Options& options) {
    if (withInput || texts.empty()) {
        options.streams.push_back({"live", options.input, options.width, options.height});
    }
    for (const std::string& text : texts) {
        StreamOption stream;
        std::string wrong = parseStream(text, options, stream);
        for (const StreamOption& other : options.streams) {
            wrong = wrong.empty() && other.name == stream.name ? "has the name of another stream" : wrong;
            wrong = wrong.empty() && other.input == "-" && stream.input == "-"
                        ? "reads what another stream reads"
                        : wrong;
        }
        if (!wrong.empty()) {
            return "--stream: " + text + " " + wrong;
        }
        options.streams.push_back(stream);
    }
    return "";
}

/// Whether one of the streams is a test picture, or a transport stream.
bool hasStream(const Options& options, bool test) {
    return std::any_of(options.streams.begin(), options.streams.end(),
                       [&](const StreamOption& stream) { return stream.isTest() == test; });
}

void addInput(CLI::App& app, Options& options, std::string& size) {
    app.add_option("--input", options.input,
                   "MPEG transport stream: a file, - for standard input, udp://[@]ADDRESS:PORT, "
                   "rtp://[@]ADDRESS:PORT, http://HOST[:PORT]/PATH; or test for a test picture")
        ->capture_default_str();
    app.add_option("--program", options.program,
                   "number of the programme to play, of several; 0 is the first one")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    app.add_flag("--loop", options.loop, "play the file again and again");
    app.add_option("--speed", options.speed, "how fast a file or the test picture plays")
        ->check(CLI::Range(0.01, 100.0))
        ->capture_default_str();
    app.add_option("--size", size, "of the test picture")->capture_default_str();
    app.add_option("--fps", options.fps, "test pictures per second")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    app.add_flag(
        "--two-qualities", options.twoQualities,
        "make a low quality of the test picture too; a client above half of --max-lag gets that one");
}

void addClients(CLI::App& app, Options& options, std::string& start) {
    app.add_option("--max-clients", options.maxClients, "live clients at a time; more get 503")
        ->check(CLI::Range(1U, CPoolSet::MOST_POOLS * PER_POOL))
        ->capture_default_str();
    app.add_option("--pools", options.pools,
                   "pools that clients are spread over, one for each 4000 at least; 0 is as many as "
                   "--max-clients needs, and up to 4000 the one that there is anyway")
        ->check(CLI::Range(0U, CPoolSet::MOST_POOLS))
        ->capture_default_str();
    app.add_option("--max-per-address", options.maxPerAddress,
                   "connections of one address at a time; more are closed at once. 0 is no limit")
        ->capture_default_str();
    app.add_option("--stall-timeout", options.stallTimeout_s,
                   "s after which a client that takes nothing is dropped")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_option(
           "--max-lag", options.maxLag_ms,
           "ms that a slow client may be late, before it steps ahead to the newest key frame; 0 is no limit "
           "but the buffer's own")
        ->check(CLI::Range(0, 3600000))
        ->capture_default_str();
    app.add_flag("--strict-lag", options.strictLag,
                 "a client above --max-lag waits for a key frame that is not late");
    app.add_option("--hard-lag", options.hardLag_ms,
                   "ms above which a client waits for a key frame, late or not; 0 is no such bound")
        ->check(CLI::Range(0, 3600000))
        ->capture_default_str();
    app.add_flag("--disposable-first", options.disposableFirst,
                 "of a client above half of --max-lag, leave out pictures that no other one needs");
    app.add_option("--kernel-lag", options.kernelLag_ms,
                   "ms of what a client's link carries that may lie unsent in the kernel; 0 is no such bound")
        ->check(CLI::Range(0, 3600000))
        ->capture_default_str();
    app.add_option("--start", start, "where a client begins: at the next key frame, or with the last one")
        ->check(CLI::IsMember({"next", "burst"}))
        ->capture_default_str();
    app.add_option("--request-timeout", options.requestTimeout_s, "s for a request to come in whole")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_option("--sndbuf", options.sendBuffer, "bytes that the kernel may hold for a client")
        ->check(CLI::Range(4096, 16777216))
        ->capture_default_str();
}

/// What the command line says of publishing, beyond the options.
struct Publishing {
    std::string file;
    std::string second = "refuse";
};

void addPublishing(CLI::App& app, Options& options, Publishing& publishing) {
    auto* const token = app.add_option("--publish-token", options.publishToken,
                                       "who shows this may PUT a transport stream to /publish/NAME");
    app.add_option("--publish-token-file", publishing.file, "the same, from the first line of a file")
        ->type_name("FILE")
        ->excludes(token);
    app.add_option("--publish-grace", options.publishGrace_s,
                   "s that viewers of a publisher that was lost wait for the next one")
        ->check(CLI::Range(0, 86400))
        ->capture_default_str();
    app.add_option("--publish-second", publishing.second,
                   "a second publisher of the same name: refuse, or takeover")
        ->check(CLI::IsMember({"refuse", "takeover"}))
        ->capture_default_str();
}

/// The result is empty, or what is wrong.
std::string finishPublishing(const Publishing& publishing, Options& options) {
    options.publishTakeover = publishing.second == "takeover";
    const std::string wrong = publishing.file.empty() ? "" : readToken(publishing.file, options.publishToken);
    return wrong.empty() ? "" : "--publish-token-file: " + publishing.file + " " + wrong;
}

}  // namespace

int readOptions(int argc, char** argv, Options& options) {
    std::string target;
    std::string size = "640x360";
    std::string start = "next";
    std::vector<std::string> streams;
    CLI::App app{"Sends one live picture to any number of clients over HTTP, whatever their speed."};
    app.add_option("--host", options.host, "address to listen on; :: is every address, IPv4 and IPv6")
        ->capture_default_str();
    app.add_option("--port", options.port, "port to listen on; 0 is any that is free")->capture_default_str();
    app.add_option("--rtsp", options.rtspPort, "port to listen on for RTSP as well; 0 is any that is free")
        ->check(CLI::Range(0, 65535));
    app.add_option("--threads", options.threads, "workers, raised to a multiple of the processors")
        ->check(CLI::Range(1, 1024))
        ->capture_default_str();
    addInput(app, options, size);
    app.add_option("--stream", streams,
                   "one more stream, by its name; an input as above, or test:WxH; without --input there are "
                   "these alone; may be repeated")
        ->type_name("NAME=INPUT")
        ->allow_extra_args(false);
    Publishing publishing;
    addPublishing(app, options, publishing);
    addClients(app, options, start);
    app.add_option("--multicast", target, "IP:PORT that the transport stream is sent to over UDP as well");
    app.add_option("--multicast-if", options.multicastInterface, "IPv4 address of the interface for that");
    app.add_option("--multicast-ttl", options.multicastTtl, "routers that it may pass")
        ->check(CLI::Range(0, 255))
        ->capture_default_str();
    app.add_option("--stats", options.statsPath,
                   "path of a socket that answers reticor-top, also while all workers hang")
        ->type_name("PATH");
    app.add_flag("--verbose", options.verbose, "also log what the library logs: connections that break");
    CLI11_PARSE(app, argc, argv);

    std::string wrong = finishPublishing(publishing, options);
    if (wrong.empty() && !target.empty()) {
        wrong = parseTarget(target, options.multicastIp, options.multicastPort);
        wrong = wrong.empty() && options.input == "test" ? "needs a transport stream as --input" : wrong;
        wrong = wrong.empty() ? wrong : "--multicast: " + target + " " + wrong;
    }
    if (wrong.empty()) {
        wrong = parseSize(size, options.width, options.height);
        wrong = wrong.empty() ? wrong : "--size: " + size + " " + wrong;
    }
    if (wrong.empty()) {
        wrong = collectStreams(streams, app.count("--input") != 0, options);
    }
    options.burst = start == "burst";
    if (wrong.empty() && options.pools != 0 && options.maxClients > options.pools * PER_POOL) {
        wrong = "--pools " + std::to_string(options.pools) + " are too few for --max-clients";
    }
    if (options.maxClients > PER_POOL && options.pools == 0) {
        options.pools = (options.maxClients + PER_POOL - 1) / PER_POOL;
    }
    if (wrong.empty() && options.maxLag_ms == 0 && (options.burst || options.disposableFirst)) {
        wrong = "--start burst and --disposable-first need a --max-lag";
    }
    if (wrong.empty() && options.rtspPort >= 0 && !hasStream(options, false) &&
        options.publishToken.empty()) {
        wrong = "--rtsp needs a transport stream as --input";
    }
    if (wrong.empty() && options.twoQualities && (!hasStream(options, true) || options.maxLag_ms == 0)) {
        wrong = "--two-qualities needs the test picture and a --max-lag";
    }
    if (wrong.empty() && options.strictLag && options.disposableFirst) {
        wrong = "--disposable-first does nothing with --strict-lag";
    }
    return wrong.empty() ? -1 : app.exit(CLI::ValidationError(wrong));
}

}  // namespace relay
