// Messages of HTTP, RTSP, SIP and SDP, as they come over the wire, for the tests of the parser.
#pragma once

namespace Orvex::Reticor::ProtocolTexts {

// A request of a browser, 20 lines.
constexpr char HTTP_GET[] =
    "GET /live/cam42/index.m3u8?token=9f3a&start=-12.5 HTTP/1.1\r\n"
    "Host: media.example.com:8080\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:115.0)\r\n"
    "Accept: text/html,application/xhtml+xml;q=0.9,*/*;q=0.8\r\n"
    "Accept-Language: en-GB,en;q=0.7,de;q=0.3\r\n"
    "Accept-Encoding: gzip, deflate, br\r\n"
    "Referer: http://media.example.com:8080/live/\r\n"
    "Origin: http://media.example.com:8080\r\n"
    "Connection: keep-alive\r\n"
    "Cookie: sid=0A1b2C3d4E5f; theme=dark; last=1699999999\r\n"
    "Range: bytes=1048576-2097151\r\n"
    "If-Modified-Since: Wed, 15 Nov 2023 06:25:24 GMT\r\n"
    "If-None-Match: \"5f-60a1b2c3\"\r\n"
    "Cache-Control: max-age=0, no-cache\r\n"
    "Pragma: no-cache\r\n"
    "DNT: 1\r\n"
    "Forwarded: for=192.0.2.60;proto=http;by=203.0.113.43\r\n"
    "X-Forwarded-For: 192.0.2.60, 2001:db8::17\r\n"
    "X-Request-Id: 7b1f0c9e-0d4a-4a6e-9d4e-1c2b3a495867\r\n"
    "Content-Length: 0\r\n"
    "\r\n";

// Its answer, with a body of two lines.
constexpr char HTTP_RESPONSE[] =
    "HTTP/1.1 206 Partial Content\r\n"
    "Date: Wed, 15 Nov 2023 06:26:01 GMT\r\n"
    "Server: edge/2.4.1\r\n"
    "Content-Type: video/mp2t\r\n"
    "Content-Range: bytes 1048576-2097151/734003200\r\n"
    "Content-Length: 1048576\r\n"
    "Accept-Ranges: bytes\r\n"
    "ETag: \"5f-60a1b2c3\"\r\n"
    "Age: 17\r\n"
    "Set-Cookie: sid=0A1b2C3d4E5f; Path=/; Max-Age=3600\r\n"
    "Set-Cookie: node=edge-07; Path=/live\r\n"
    "Via: 1.1 cache3.example.net:3128\r\n"
    "Keep-Alive: timeout=5, max=99\r\n"
    "Connection: keep-alive\r\n"
    "\r\n"
    "#EXTM3U\r\n"
    "#EXT-X-VERSION:3\r\n";

// Chunks with sizes in hex, and a trailer.
constexpr char HTTP_CHUNKED[] =
    "HTTP/1.1 200 OK\r\n"
    "Content-Type: text/plain; charset=utf-8\r\n"
    "Transfer-Encoding: chunked\r\n"
    "Trailer: X-Checksum\r\n"
    "\r\n"
    "1a\r\n"
    "abcdefghijklmnopqrstuvwxyz\r\n"
    "FF;name=value\r\n"
    "0\r\n"
    "X-Checksum: dEadBeef\r\n"
    "\r\n";

// Heads in odd cases, tabs, an empty value, a folded line.
constexpr char HTTP_POST[] =
    "POST /api/v2/streams HTTP/1.0\r\n"
    "HOST:\tcontrol.example.com\r\n"
    "content-length:\t42\r\n"
    "CONTENT-TYPE: application/json\r\n"
    "X-Empty:\r\n"
    "X-Folded: first\r\n"
    "\tsecond\r\n"
    "X-Temperature: -273.15\r\n"
    "X-Price: 12.\r\n"
    "X-Version: 1.2.3\r\n"
    "X-Big: 99999999999999999999\r\n"
    "X-Padded:    spaced out  \r\n"
    "Expect: 100-continue\r\n"
    "\r\n"
    "{\"name\": \"cam42\", \"bitrate\": 4000000}\r\n";

constexpr char RTSP_OPTIONS[] =
    "OPTIONS rtsp://192.168.7.20:554/cam/1 RTSP/1.0\r\n"
    "CSeq: 1\r\n"
    "User-Agent: player/3.0\r\n"
    "Require: implicit-play\r\n"
    "\r\n"
    "RTSP/1.0 200 OK\r\n"
    "CSeq: 1\r\n"
    "Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER\r\n"
    "\r\n";

constexpr char RTSP_DESCRIBE[] =
    "DESCRIBE rtsp://[fe80::1%2]:8554/cam/1 RTSP/1.0\r\n"
    "CSeq: 2\r\n"
    "Accept: application/sdp\r\n"
    "Authorization: Digest username=\"admin\", realm=\"cam\", nonce=\"8f1e\"\r\n"
    "\r\n"
    "RTSP/1.0 200 OK\r\n"
    "CSeq: 2\r\n"
    "Content-Base: rtsp://[fe80::1%2]:8554/cam/1/\r\n"
    "Content-Type: application/sdp\r\n"
    "Content-Length: 460\r\n"
    "\r\n";

constexpr char RTSP_SETUP[] =
    "SETUP rtsp://192.168.7.20/cam/1/trackID=0 RTSP/1.0\r\n"
    "CSeq: 3\r\n"
    "Transport: RTP/AVP/UDP;unicast;client_port=50000-50001\r\n"
    "\r\n"
    "RTSP/1.0 200 OK\r\n"
    "CSeq: 3\r\n"
    "Session: 66334873;timeout=60\r\n"
    "Transport: RTP/AVP/UDP;unicast;client_port=50000-50001;server_port=6970-6971;ssrc=2A7F00C1\r\n"
    "\r\n";

constexpr char RTSP_PLAY[] =
    "PLAY rtsp://192.168.7.20/cam/1 RTSP/1.0\r\n"
    "CSeq: 4\r\n"
    "Session: 66334873\r\n"
    "Range: npt=10.500-\r\n"
    "Scale: 1.0\r\n"
    "Speed: -2.000\r\n"
    "\r\n"
    "RTSP/1.0 200 OK\r\n"
    "CSeq: 4\r\n"
    "Session: 66334873\r\n"
    "Range: npt=10.500-735.040\r\n"
    "RTP-Info: url=rtsp://192.168.7.20/cam/1/trackID=0;seq=45102;rtptime=12345678\r\n"
    "\r\n"
    "TEARDOWN rtsp://192.168.7.20/cam/1 RTSP/1.0\r\n"
    "CSeq: 5\r\n"
    "Session: 66334873\r\n"
    "\r\n";

constexpr char SIP_INVITE[] =
    "INVITE sip:bob@biloxi.example.com SIP/2.0\r\n"
    "Via: SIP/2.0/UDP pc33.atlanta.example.com:5060;branch=z9hG4bK776asdhds\r\n"
    "Via: SIP/2.0/TCP 198.51.100.7:5061;branch=z9hG4bK4b43c2ff8.1;received=192.0.2.1\r\n"
    "Max-Forwards: 70\r\n"
    "To: Bob <sip:bob@biloxi.example.com>\r\n"
    "From: Alice <sip:alice@atlanta.example.com>;tag=1928301774\r\n"
    "Call-ID: a84b4c76e66710@pc33.atlanta.example.com\r\n"
    "CSeq: 314159 INVITE\r\n"
    "Contact: <sip:alice@[2001:db8::9:1]:5060>\r\n"
    "Allow: INVITE, ACK, CANCEL, OPTIONS, BYE, REFER, NOTIFY\r\n"
    "Supported: replaces, timer\r\n"
    "Session-Expires: 1800;refresher=uac\r\n"
    "Content-Type: application/sdp\r\n"
    "Content-Length: 142\r\n"
    "\r\n";

constexpr char SIP_RINGING[] =
    "SIP/2.0 180 Ringing\r\n"
    "Via: SIP/2.0/UDP pc33.atlanta.example.com:5060;branch=z9hG4bK776asdhds\r\n"
    "To: Bob <sip:bob@biloxi.example.com>;tag=8321234356\r\n"
    "From: Alice <sip:alice@atlanta.example.com>;tag=1928301774\r\n"
    "Call-ID: a84b4c76e66710@pc33.atlanta.example.com\r\n"
    "CSeq: 314159 INVITE\r\n"
    "Retry-After: 5;duration=3600\r\n"
    "Content-Length: 0\r\n"
    "\r\n";

constexpr char SIP_REGISTER[] =
    "REGISTER sip:registrar.biloxi.example.com SIP/2.0\r\n"
    "v: SIP/2.0/UDP bobspc.biloxi.example.com:5060;rport\r\n"
    "Max-Forwards: 70\r\n"
    "t: Bob <sip:bob@biloxi.example.com>\r\n"
    "f: Bob <sip:bob@biloxi.example.com>;tag=456248\r\n"
    "i: 843817637684230@998sdasdh09\r\n"
    "CSeq: 1826 REGISTER\r\n"
    "m: <sip:bob@192.0.2.4>;expires=7200;q=0.7\r\n"
    "m: <mailto:bob@biloxi.example.com>;q=0.1\r\n"
    "Expires: 7200\r\n"
    "l: 0\r\n"
    "\r\n";

// With plain line feeds.
constexpr char SDP_CAMERA[] =
    "v=0\n"
    "o=- 2890844526 2890842807 IN IP4 192.168.7.20\n"
    "s=Camera 1, door\n"
    "i=Night vision\n"
    "u=http://192.168.7.20/help.html\n"
    "e=admin@example.com\n"
    "c=IN IP4 239.1.2.3/127\n"
    "b=AS:4096\n"
    "t=0 0\n"
    "a=tool:recorder\n"
    "a=range:npt=0-735.040\n"
    "a=control:*\n"
    "m=video 0 RTP/AVP 96\n"
    "c=IN IP6 FF15::101/3\n"
    "b=TIAS:4000000\n"
    "a=rtpmap:96 H264/90000\n"
    "a=fmtp:96 packetization-mode=1;profile-level-id=64001F;sprop-parameter-sets=Z2QAH6zZQFAFuwEQ,aOvjyyLA\n"
    "a=framerate:29.97\n"
    "a=control:trackID=0\n"
    "m=audio 49170 RTP/AVP 0 97\n"
    "a=rtpmap:0 PCMU/8000\n"
    "a=rtpmap:97 MPEG4-GENERIC/48000/2\n"
    "a=ptime:20\n"
    "a=sendonly\n"
    "a=control:trackID=1\n";

// With candidates, and no line end after the last line.
constexpr char SDP_OFFER[] =
    "v=0\n"
    "o=alice 20518 0 IN IP6 2001:db8::9:1\n"
    "s=-\n"
    "t=2873397496 2873404696\n"
    "r=7d 1h 0 25h\n"
    "z=2882844526 -1h 2898848070 0\n"
    "a=group:BUNDLE 0 1\n"
    "a=ice-ufrag:8hhY\n"
    "a=ice-pwd:asd88fgpdd777uzjYhagZg\n"
    "a=fingerprint:sha-256 4A:AD:B9:B1:3F:82:18:3B:54:02:12:DF:3E:5D:49:6B:19:E5:7C:AB\n"
    "m=audio 54400 UDP/TLS/RTP/SAVPF 111 0\n"
    "c=IN IP4 203.0.113.141\n"
    "a=mid:0\n"
    "a=rtcp:54401 IN IP4 203.0.113.141\n"
    "a=candidate:1 1 UDP 2130706431 192.0.2.1 54400 typ host\n"
    "a=candidate:2 1 UDP 1694498815 203.0.113.141 54401 typ srflx raddr 192.0.2.1 rport 54400\n"
    "a=candidate:3 1 UDP 2130706430 fe80::1c2d 54402 typ host\n"
    "a=extmap:1 urn:ietf:params:rtp-hdrext:ssrc-audio-level\n"
    "a=rtpmap:111 opus/48000/2\n"
    "a=fmtp:111 minptime=10;useinbandfec=1\n"
    "a=ssrc:3735928559 cname:f5GxVb9sRzqR\n"
    "a=crypto:1 AES_CM_128_HMAC_SHA1_80 inline:d0RmdmcmVCspeEc3QGZiNWpVLFJhQX1cfHAwJSoj|2^20|1:32\n"
    "m=video 51372 UDP/TLS/RTP/SAVPF 31\n"
    "a=rtpmap:31 H261/90000\n"
    "a=rtcp-fb:31 nack pli\n"
    "a=sendrecv\n"
    "a=imageattr:31 send [x=352,y=288]\n"
    "a=end:65535";

constexpr const char* ALL[] = {HTTP_GET,      HTTP_RESPONSE, HTTP_CHUNKED, HTTP_POST,  RTSP_OPTIONS,
                               RTSP_DESCRIBE, RTSP_SETUP,    RTSP_PLAY,    SIP_INVITE, SIP_RINGING,
                               SIP_REGISTER,  SDP_CAMERA,    SDP_OFFER};

}  // namespace Orvex::Reticor::ProtocolTexts
