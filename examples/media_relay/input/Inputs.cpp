// Inputs: which class plays what.

#include "media_relay/input/Inputs.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "media_relay/input/HttpInput.h"
#include "media_relay/input/PipeInput.h"
#include "media_relay/input/TsSource.h"
#include "media_relay/input/UdpInput.h"

namespace relay {

using namespace Orvex::Reticor;
using Kind = InputUrl::Kind;

OpenInput::OpenInput(OpenInput&& other) noexcept
    : url(std::move(other.url)), fd(std::exchange(other.fd, -1)), socket(std::move(other.socket)) {}

OpenInput::~OpenInput() {
    if (fd >= 0) {
        close(fd);
    }
}

std::string OpenInput::open(const std::string& name) {
    const std::string wrong = parseInputUrl(name, url);
    if (!wrong.empty()) {
        return wrong;
    }
    if (url.kind == Kind::Udp || url.kind == Kind::Rtp) {
        return UdpInput::open(url, socket);
    }
    if (url.kind == Kind::File) {
        fd = TsSource::open(name);
        return fd < 0 ? std::strerror(errno) : "";
    }
    return "";
}

/// Standard input may be a file, and a name may be that of a pipe: what counts is what was opened.
bool OpenInput::isPushed() const {
    if (url.kind != Kind::File) {
        return url.kind != Kind::Test;
    }
    struct stat what {};
    return fstat(fd, &what) == 0 && (S_ISFIFO(what.st_mode) || S_ISSOCK(what.st_mode));
}

void Inputs::start(OpenInput&& input, const Setup& setup) {
    const LiveInput::Setup live{setup.outputs, setup.listener, setup.program};
    if (input.url.kind == Kind::Http) {
        if (!m_pool.isOpen()) {
            m_pool = Kit::Pool(1);
        }
        HttpInput::Create(m_roster, m_pool, live, input.url);
    } else if (input.socket) {
        UdpInput::Create(m_roster, live, input.url, std::move(input.socket));
    } else if (input.isPushed()) {
        PipeInput::Create(m_roster, live, std::exchange(input.fd, -1));
    } else {
        TsSource::Setup file;
        file.fd = std::exchange(input.fd, -1);
        file.loop = setup.loop;
        file.program = setup.program;
        TsSource::Create(m_roster, setup.outputs, setup.listener, file)->start(setup.speed);
    }
}

void Inputs::stop() {
    m_pool.stop(std::chrono::milliseconds(0));
}

}  // namespace relay
