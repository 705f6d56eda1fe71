// Fan-out server on GStreamer: appsrc ! multifdsink, a pipeline per thread. Buffers wrap memory that is
// reused once the last client is past it; the frame is put together once, since the sink would join a buffer
// of two pieces for each client anew. The sink writes on a thread of its own.
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <poll.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

#include "common/Fanout.h"
#include "common/Usage.h"

namespace {

class FrameMemory;

struct Block {
    FrameMemory* owner = nullptr;
    std::vector<unsigned char> bytes;
};

// Memory of frames; it comes back on the sink's thread.
class FrameMemory {
public:
    explicit FrameMemory(std::size_t size) : m_size(size) {}

    Block* take() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        ++m_out;
        if (m_free.empty()) {
            m_blocks.push_back(std::make_unique<Block>());
            m_blocks.back()->owner = this;
            m_blocks.back()->bytes.resize(m_size);
            return m_blocks.back().get();
        }
        Block* block = m_free.back();
        m_free.pop_back();
        return block;
    }

    static void giveBack(void* context) {
        auto* block = static_cast<Block*>(context);
        const std::lock_guard<std::mutex> guard(block->owner->m_mutex);
        --block->owner->m_out;
        block->owner->m_free.push_back(block);
    }

    // Frames that the pipeline still has.
    std::uint64_t out() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_out;
    }

private:
    const std::size_t m_size;
    std::mutex m_mutex;
    std::uint64_t m_out = 0;
    std::vector<Block*> m_free;
    std::vector<std::unique_ptr<Block>> m_blocks;
};

class Pipeline {
public:
    Pipeline(const Bench::FanoutOptions& options, const Bench::PayloadTable& table, Bench::HandOver& handOver)
        : m_options(options),
          m_table(table),
          m_handOver(handOver),
          m_pace(options.fps),
          m_memory(Bench::FrameHeader::kSize + options.frameBytes),
          m_pipeline(gst_pipeline_new(nullptr)),
          m_source(gst_element_factory_make("appsrc", nullptr)),
          m_sink(gst_element_factory_make("multifdsink", nullptr)) {
        if (m_source == nullptr || m_sink == nullptr) {
            g_error("appsrc or multifdsink is missing");
        }
        g_object_set(m_source, "max-bytes", guint64{0}, "block", FALSE, "format", GST_FORMAT_BYTES, nullptr);
        g_object_set(m_sink, "sync", FALSE, "async", FALSE, nullptr);
        gst_util_set_object_arg(G_OBJECT(m_sink), "unit-format", "buffers");
        g_object_set(m_sink, "units-max", gint64{-1}, "units-soft-max",
                     static_cast<gint64>(Bench::mostLag(options)), nullptr);
        gst_util_set_object_arg(G_OBJECT(m_sink), "recover-policy", "keyframe");
        gst_util_set_object_arg(G_OBJECT(m_sink), "sync-method", "next-keyframe");
        g_signal_connect(m_sink, "client-fd-removed", G_CALLBACK(onRemoved), this);
        gst_bin_add_many(GST_BIN(m_pipeline), m_source, m_sink, nullptr);
        gst_element_link(m_source, m_sink);
        gst_element_set_state(m_pipeline, GST_STATE_PLAYING);
    }
    ~Pipeline() {
        gst_element_set_state(m_pipeline, GST_STATE_NULL);
        gst_object_unref(m_pipeline);
        for (const int fd : m_clients) {
            close(fd);
        }
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    void run() {
        while (!m_stop) {
            const std::uint64_t now = Bench::nowNs();
            if (m_options.fps == 0 && hasClients()) {
                if (hasRoom()) {
                    makeFrame(now);
                    wait(0);
                } else {
                    wait(kAskAgainNs);
                }
            } else if (m_pace.isDue(now)) {
                makeFrame(now);
            } else {
                wait(m_pace.dueNs() - now);
            }
        }
    }

private:
    static constexpr std::uint64_t kAskAgainNs = 100000;

    static void onRemoved(GstElement*, gint fd, gpointer context) {
        auto* self = static_cast<Pipeline*>(context);
        const std::lock_guard<std::mutex> guard(self->m_mutex);
        self->m_clients.erase(std::find(self->m_clients.begin(), self->m_clients.end(), fd));
        close(fd);
    }

    std::vector<int> clients() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_clients;
    }

    bool hasClients() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return !m_clients.empty();
    }

    // Whether no client has more than 8 waiting. The sink is asked about its clients only when the frames in
    // it may be too many and all that the last answer allowed are made.
    bool hasRoom() {
        if (m_made < m_allowed || m_memory.out() <= Bench::kMostWaiting) {
            return true;
        }
        std::uint64_t slowest = m_made;
        for (const int fd : clients()) {
            slowest = std::min(slowest, progress(fd));
            if (slowest + Bench::kMostWaiting < m_made) {
                return false;
            }
        }
        m_allowed = slowest + Bench::kMostWaiting + 1;
        return true;
    }

    // The frame that a client wants next, from what the sink knows of it.
    std::uint64_t progress(int fd) {
        GstStructure* stats = nullptr;
        g_signal_emit_by_name(m_sink, "get-stats", fd, &stats);
        if (stats == nullptr) {
            return m_made;
        }
        guint64 sent = 0;
        guint64 first = GST_CLOCK_TIME_NONE;
        gst_structure_get_uint64(stats, "bytes-sent", &sent);
        gst_structure_get_uint64(stats, "first-buffer-ts", &first);
        gst_structure_free(stats);
        if (first == GST_CLOCK_TIME_NONE) {
            return m_made;
        }
        return first + sent / (Bench::FrameHeader::kSize + m_options.frameBytes);
    }

    void makeFrame(std::uint64_t now) {
        m_pace.advance(now);
        Block* block = m_memory.take();
        const std::uint64_t number = m_made++;
        const bool key = number % m_options.gop == 0;
        Bench::FrameHeader header;
        header.length = static_cast<std::uint32_t>(m_options.frameBytes);
        header.sequence = number;
        header.sentNs = Bench::nowNs();
        header.level = static_cast<std::uint8_t>(key ? Bench::kKeyLevel : Bench::kOtherLevel);
        header.write(block->bytes.data());
        std::memcpy(block->bytes.data() + Bench::FrameHeader::kSize, m_table.window(number),
                    m_options.frameBytes);
        GstBuffer* buffer =
            gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, block->bytes.data(), block->bytes.size(), 0,
                                        block->bytes.size(), block, FrameMemory::giveBack);
        GST_BUFFER_PTS(buffer) = number;  // nothing is synchronised; by this a client's first frame is known
        if (!key) {
            GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        }
        gst_app_src_push_buffer(GST_APP_SRC(m_source), buffer);
    }

    void wait(std::uint64_t ns) {
        pollfd given{m_handOver.readEnd(), POLLIN, 0};
        const timespec time{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        if (ppoll(&given, 1, &time, nullptr) <= 0) {
            return;
        }
        for (int fd; m_handOver.take(&fd);) {
            if (fd == Bench::HandOver::kStop) {
                m_stop = true;
                return;
            }
            Bench::limitKernelQueue(fd, m_options);
            {
                const std::lock_guard<std::mutex> guard(m_mutex);
                m_clients.push_back(fd);
            }
            g_signal_emit_by_name(m_sink, "add", fd);
        }
    }

    const Bench::FanoutOptions m_options;
    const Bench::PayloadTable& m_table;
    Bench::HandOver& m_handOver;
    Bench::FramePace m_pace;
    FrameMemory m_memory;
    GstElement* m_pipeline;
    GstElement* m_source;
    GstElement* m_sink;
    std::mutex m_mutex;
    std::vector<int> m_clients;
    std::uint64_t m_made = 0;
    std::uint64_t m_allowed = 0;  // frames that may be made before the clients are looked at again
    bool m_stop = false;
};

}  // namespace

int main(int argc, char** argv) {
    const Bench::FanoutOptions options = Bench::parseFanoutOptions(argc, argv, "fan-out server on GStreamer");
    std::signal(SIGPIPE, SIG_IGN);
    Bench::blockTerminationSignals();  // before GStreamer starts threads
    gst_init(nullptr, nullptr);
    const Bench::PayloadTable table(options.frameBytes);
    Bench::runHandOverLoops(Bench::loopOptions(options),
                            [&](Bench::HandOver& handOver) { Pipeline(options, table, handOver).run(); });
    return 0;
}
