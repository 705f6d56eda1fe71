// TsSource: an MPEG transport stream from a file or from standard input, in real time.
#pragma once

#include <string>

#include "media_relay/input/Source.h"
#include "media_relay/input/TsInput.h"

namespace relay {

/// Reads up to the next clock value at a time, puts the frames that are complete, and tells the receiver the
/// media time of that clock value, before which it is not called again.
class TsSource : public Source {
public:
    /// Opens the input: "-" is standard input. -1 if that fails, with the reason in errno.
    static int open(const std::string& name);

    struct Setup {
        int fd = -1;  // the source takes it over
        bool loop = false;
        unsigned program = 0;  // 0: the first one
    };

    static TsSource* Create(Roster& roster, const TsOutputs& outputs, SourceListener& listener,
                            const Setup& setup);

    long long handle_passive_input() override;

private:
    enum class Found { Clock, Packet, Nothing, End };

    TsSource(Roster& roster, const TsOutputs& outputs, SourceListener& listener, const Setup& setup);
    ~TsSource() override;

    Found next();
    bool read();
    long long onEnd();
    long long mediaTime();
    void report();

    const int m_fd;
    const bool m_loop;
    TsInput m_input;
    bool m_inputEnded = false;
    int m_error = 0;  // errno of a failed read
    bool m_over = false;
    uint64_t m_base_us = 0;  // media time at which the receiver's clock began
};

}  // namespace relay
