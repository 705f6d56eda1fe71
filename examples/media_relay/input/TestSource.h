// TestSource: the test picture as motion JPEG, in real time.
#pragma once

#include "media_relay/LiveStream.h"
#include "media_relay/Options.h"
#include "media_relay/input/Source.h"
#include "media_relay/input/TestPicture.h"

namespace relay {

/// What stands between two pictures of a multipart stream.
constexpr char kPictureBoundary[] = "picture";

/// Each frame is one part of multipart/x-mixed-replace: its head, the picture, and the boundary after it, at
/// which a browser shows it. The head numbers the picture and carries a checksum of its bytes (`X-Frame`,
/// `X-Sum`), so that a client can prove what it got.
class TestSource : public Source {
public:
    static TestSource* Create(Roster& roster, LiveStream& stream, SourceListener& listener,
                              const Options& options);

    long long handle_passive_input() override;

private:
    TestSource(Roster& roster, LiveStream& stream, SourceListener& listener, const Options& options);

    void put(std::vector<uint8_t>&& picture, bool low);

    LiveStream& m_stream;
    TestPicture m_picture;
    const unsigned m_fps;
    const bool m_twoQualities;
    uint64_t m_number = 0;
    uint64_t m_base = 0;  // number at which the receiver's clock began
};

}  // namespace relay
