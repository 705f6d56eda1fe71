// Options: what the command line says.
#pragma once

#include <string>
#include <vector>

namespace relay {

/// A stream by its name, and what it plays.
struct StreamOption {
    std::string name;
    std::string input;
    unsigned width = 0;  // of the test picture
    unsigned height = 0;

    bool isTest() const { return input == "test"; }
};

struct Options {
    std::string host = "127.0.0.1";
    unsigned short port = 7009;
    int rtspPort = -1;  // 0 is any that is free, -1 none
    unsigned threads = 1;
    std::string input = "test";         // "test", "-", or the name of a file
    std::vector<StreamOption> streams;  // all of them, the one of `input` first
    bool loop = false;
    unsigned program = 0;  // of several in the input; 0: the first one
    double speed = 1.0;
    std::string publishToken;  // empty: nobody may publish
    unsigned publishGrace_s = 10;
    bool publishTakeover = false;  // a second publisher puts the first one out
    unsigned maxClients = 100;
    unsigned pools = 0;             // private ones that clients are spread over, 0: all on the public one
    unsigned maxPerAddress = 1024;  // connections of one address, 0 is no limit
    unsigned stallTimeout_s = 10;
    unsigned maxLag_ms = 1000;  // 0: a slow client gets what is left of the buffer
    unsigned hardLag_ms = 0;    // 0: none
    bool strictLag = false;
    unsigned kernelLag_ms = 0;  // 0: as --sndbuf says
    bool disposableFirst = false;
    bool burst = false;  // a client begins at the last key frame, and not at the next one
    unsigned requestTimeout_s = 10;
    unsigned sendBuffer = 131072;  // bytes of the kernel's, per client
    std::string multicastIp;       // empty: no multicast
    unsigned short multicastPort = 0;
    std::string multicastInterface;
    unsigned multicastTtl = 1;
    unsigned width = 640;  // of the test picture
    unsigned height = 360;
    unsigned fps = 25;
    bool twoQualities = false;  // of the test picture
    std::string statsPath;      // of the statistics socket; empty: none
    bool verbose = false;
};

/// Fills `options`. If the program is to go on, the result is -1; else it is main's.
int readOptions(int argc, char** argv, Options& options);

}  // namespace relay
