// Inputs: opens an input by its name, and plays it.
#pragma once

#include <memory>
#include <string>

#include <Reticor/SockDgram.h>
#include <Reticor/kit/Pool.h>

#include "media_relay/Roster.h"
#include "media_relay/input/InputUrl.h"
#include "media_relay/input/Source.h"
#include "media_relay/input/TsOutputs.h"

namespace relay {

/// What of an input can be had before it plays: a file, or a port that is bound.
struct OpenInput {
    OpenInput() = default;
    OpenInput(OpenInput&& other) noexcept;
    OpenInput(const OpenInput&) = delete;
    OpenInput& operator=(const OpenInput&) = delete;
    OpenInput& operator=(OpenInput&&) = delete;
    ~OpenInput();

    /// Takes the name apart and opens what it names. The result is empty, or what went wrong, to be printed
    /// after the name. Any thread, also before the library is up.
    std::string open(const std::string& name);

    /// Whether it is handed on as it comes; else it is paced by its clock.
    bool isPushed() const;

    InputUrl url;
    int fd = -1;                                         // of a file or a pipe
    std::unique_ptr<Orvex::Reticor::CSockDgram> socket;  // of UDP and RTP
};

/// Plays any number of inputs that are transport streams. Files keep the pace of their clocks, on threads of
/// the media receivers; pipes, datagrams and what servers send is handed on as it comes, on workers.
class Inputs {
public:
    struct Setup {
        TsOutputs outputs;
        SourceListener& listener;
        unsigned program = 0;  // of several; 0: the first one
        bool loop = false;     // of files alone
        double speed = 1;      // the same
    };

    explicit Inputs(Roster& roster) : m_roster(roster) {}

    /// The handler that plays is in the roster until `kStop` has ended it. A thread that is no worker, and
    /// one at a time: the first input from a server starts workers for its connections.
    void start(OpenInput&& input, const Setup& setup);

    /// No connection is tried any more. Before the roster is waited for, by the same thread.
    void stop();

private:
    Roster& m_roster;
    Orvex::Reticor::Kit::Pool m_pool;  // once it is needed
};

}  // namespace relay
