// TsOutputs: where the units of one transport stream go.
#pragma once

namespace relay {

class LiveStream;
class Mp4Output;
class MulticastOutput;
class RtspOutput;

/// All stay the caller's, and outlive the input that feeds them.
struct TsOutputs {
    LiveStream& stream;
    Mp4Output& mp4;
    RtspOutput* rtsp = nullptr;            // null: none
    MulticastOutput* multicast = nullptr;  // the same
};

}  // namespace relay
