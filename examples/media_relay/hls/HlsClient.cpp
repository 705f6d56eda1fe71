// HlsClient: heads of answers, and the writing.

#include "media_relay/hls/HlsClient.h"

#include <sys/uio.h>

#include "media_relay/http/Response.h"

namespace relay {

using Orvex::Reticor::CSockStream;

namespace {

/// Up to the blank line.
std::string headOf(const HlsAnswer& answer, const std::string& tag, size_t size, bool keeps_alive) {
    const bool good = answer.status == 200 || answer.status == 304;
    std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " " + reasonOf(answer.status) + "\r\n";
    if (answer.status != 304) {
        head += "Content-Type: " + (good ? answer.type : "text/plain") + "\r\n";
        head += "Content-Length: " + std::to_string(size) + "\r\n";
    }
    if (good) {
        head += "ETag: " + tag + "\r\n";
    }
    head += !good            ? "Cache-Control: no-store\r\n"
            : answer.forEver ? "Cache-Control: public, max-age=31536000, immutable\r\n"
                             : "Cache-Control: public, max-age=1\r\n";
    head += answer.status == 503 ? "Retry-After: 1\r\n" : "";
    head += "Access-Control-Allow-Origin: *\r\n";
    return head + (keeps_alive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n");
}

size_t sizeOf(const std::vector<SharedBytes>& body) {
    size_t size = 0;
    for (const SharedBytes& piece : body) {
        size += piece->size();
    }
    return size;
}

}  // namespace

HlsClient::Step HlsClient::begin(HlsOutput* stream, const HlsRequest& request, const HttpRequest& head,
                                 long client, CSockStream& sock) {
    if (stream == nullptr) {
        return refuse(404, head, sock);
    }
    m_stream = stream;
    m_request = request;
    m_known_tag = head.field("if-none-match");
    m_with_body = head.method != "HEAD";
    m_keeps_alive = head.keepsAlive;
    m_client = client;
    return goOn(false, sock);
}

HlsClient::Step HlsClient::refuse(int status, const HttpRequest& head, CSockStream& sock) {
    m_stream = nullptr;
    m_with_body = head.method != "HEAD";
    m_keeps_alive = head.keepsAlive;
    HlsAnswer refusal;
    refusal.status = status;
    return answer(refusal, sock);
}

HlsClient::Step HlsClient::goOn(bool late, CSockStream& sock) {
    HlsAnswer found = m_stream->answer(m_request, m_client);
    m_is_waiting = found.status == HlsAnswer::LATER && !late;
    if (m_is_waiting) {
        m_patience_us = found.patience_us;
        return Step::WAIT;
    }
    if (found.status == HlsAnswer::LATER) {
        m_stream->leave(m_client);
        found.status = 503;
    }
    return answer(found, sock);
}

HlsClient::Step HlsClient::answer(const HlsAnswer& answer, CSockStream& sock) {
    const std::string tag = "\"" + answer.tag + "\"";
    HlsAnswer said = answer;
    if (said.status == 200 && m_known_tag.find(tag) != std::string::npos) {
        said.status = 304;
        said.body.clear();
    }
    std::string text;
    if (said.status != 200 && said.status != 304) {
        text = std::to_string(said.status) + " " + reasonOf(said.status) + "\n";
    }
    m_head = headOf(said, tag, sizeOf(said.body) + text.size(), m_keeps_alive);
    m_head += m_with_body ? text : "";
    m_body = m_with_body ? std::move(said.body) : std::vector<SharedBytes>();
    m_sent = 0;
    return write(sock);
}

HlsClient::Step HlsClient::write(CSockStream& sock) {
    std::vector<iovec> pieces;
    size_t before = m_sent;  // bytes that are out already
    const auto add = [&](const void* bytes, size_t size) {
        const size_t out = before < size ? before : size;
        before -= out;
        if (out < size) {
            pieces.push_back({static_cast<char*>(const_cast<void*>(bytes)) + out, size - out});
        }
    };
    add(m_head.data(), m_head.size());
    for (const SharedBytes& piece : m_body) {
        add(piece->data(), piece->size());
    }
    size_t left = m_head.size() + sizeOf(m_body) - m_sent;
    const int sent = sock.WriteV(pieces.data(), static_cast<int>(pieces.size()));
    if (sent < 0) {
        return Step::FAIL;
    }
    m_sent += static_cast<size_t>(sent);
    left -= static_cast<size_t>(sent);
    if (left != 0) {
        return Step::WRITE;
    }
    m_body.clear();
    return m_keeps_alive ? Step::NEXT : Step::LAST;
}

void HlsClient::leave() {
    if (m_is_waiting) {
        m_stream->leave(m_client);
        m_is_waiting = false;
    }
}

}  // namespace relay
