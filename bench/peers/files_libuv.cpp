// The file rows on libuv: uv_fs_write and uv_fs_read from a loop, one request after the other.
#include <uv.h>

#include <fcntl.h>

#include <vector>

#include "common/FileRows.h"

namespace {

// The requests of one file. Each callback hands over the next one.
class Requests {
public:
    Requests(const Bench::FileOptions& options, Bench::CallTimes& times, bool writing)
        : m_options(options), m_times(times), m_pieces(options), m_buffer(options.piece), m_writing(writing) {
        uv_loop_init(&m_loop);
        m_request.data = this;
    }
    ~Requests() { uv_loop_close(&m_loop); }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    bool run(const std::string& path) {
        const int flags = m_writing ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY;
        uv_fs_t request;
        m_file = uv_fs_open(&m_loop, &request, path.c_str(), flags, 0644, nullptr);
        uv_fs_req_cleanup(&request);
        if (m_file < 0) {
            return false;
        }
        next();
        uv_run(&m_loop, UV_RUN_DEFAULT);
        uv_fs_close(&m_loop, &request, m_file, nullptr);
        uv_fs_req_cleanup(&request);
        return m_good && m_number == m_options.bytes / m_options.piece;
    }

private:
    void next() {
        if (m_writing) {
            m_bytes = uv_buf_init(const_cast<char*>(m_pieces.fill(m_number)),
                                  static_cast<unsigned>(m_options.piece));
        } else {
            m_bytes = uv_buf_init(m_buffer.data(), static_cast<unsigned>(m_options.piece));
        }
        const auto offset = static_cast<std::int64_t>(m_number * m_options.piece);
        const auto hand_over = m_writing ? uv_fs_write : uv_fs_read;
        m_times.timed([&] { return hand_over(&m_loop, &m_request, m_file, &m_bytes, 1, offset, done); });
    }

    static void done(uv_fs_t* request) {
        auto* const self = static_cast<Requests*>(request->data);
        const ssize_t result = request->result;
        uv_fs_req_cleanup(request);
        self->m_good = result == static_cast<ssize_t>(self->m_options.piece) &&
                       (self->m_writing || self->m_pieces.matches(self->m_buffer.data(), self->m_number));
        if (self->m_good && ++self->m_number < self->m_options.bytes / self->m_options.piece) {
            self->next();
        }
    }

    const Bench::FileOptions& m_options;
    Bench::CallTimes& m_times;
    Bench::Pieces m_pieces;
    std::vector<char> m_buffer;
    const bool m_writing;
    uv_loop_t m_loop{};
    uv_fs_t m_request{};
    uv_buf_t m_bytes{};
    uv_file m_file = -1;
    std::size_t m_number = 0;
    bool m_good = true;
};

}  // namespace

int main(int argc, char** argv) {
    const Bench::FileOptions options = Bench::parseFileOptions(argc, argv, "files on libuv");
    Bench::FileUse use;
    use.write = [&](const std::string& path, Bench::CallTimes& times) {
        return Requests(options, times, true).run(path);
    };
    use.read = [&](const std::string& path, Bench::CallTimes& times) {
        return Requests(options, times, false).run(path);
    };
    return Bench::runFiles(options, use);
}
