// The command `ntf`: its words are one table, in the order in which they are tried.
#include "R3/server/Debug.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <Infra/Log.h>
#include <component/Component.h>
#include <component/Console.h>

#include "Core/pool/ThreadPool.h"
#include "R3/print/DebugSocket.h"

namespace Orvex::Reticor {

namespace {

constexpr char FRAME[] = "-------------------------------------------------------------------------------\n";

/// -25344. The ids of handlers are far below it; what is above is not an id but a slip of the operator.
constexpr int HIGHEST_HANDLER_ID = static_cast<int>(0xFFFF9D00);

/// The types of CDebugSocket::DebugControl.
enum ControlType { ALL, READ, WRITE, EXCEPTION, FD, HANDLER, OFF, RESET, DENSITY };

/// A reply: a frame of five lines, with the message as the fourth.
void reply(const char* format, ...) __attribute__((format(printf, 1, 2)));

void reply(const char* format, ...) {
    if (!Infra::logEnabled(4)) {
        return;
    }
    char message[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof(message), format, arguments);
    va_end(arguments);
    INFRA_LOG_PLAIN(4, "%s", FRAME);
    INFRA_LOG_PLAIN(4, "-                             Reticor tips                               -\n");
    INFRA_LOG_PLAIN(4, "%s", FRAME);
    INFRA_LOG_PLAIN(4, "%s", message);
    INFRA_LOG_PLAIN(4, "%s", FRAME);
}

/// What atoi gives, with a result also where an int cannot hold the number.
int number(const char* text) {
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

// ---- the rows that do more than set flags ----------------------------------------------------------------

void version(const char*) {
    Version();
}

void usage(const char*) {
    Usage();
}

void list(const char*) {
    Print_List();
}

void follow_socket(const char* word) {
    const int fd = number(word);
    reply("Socket is %d.\n", fd);
    if (fd < 0) {
        reply("Plase enter the correct fd.\n");
        return;
    }
    reply("Display the event flow sent by this socket:%lld.\n", static_cast<long long>(fd));
    CDebugSocket::DebugControl(OFF, true, -1);
    CDebugSocket::DebugControl(FD, true, fd);
}

void follow_handler(const char* word) {
    const int id = number(word);
    reply("CNetHandler id is %d", id);
    if (id > HIGHEST_HANDLER_ID) {
        reply("Plase enter the correct CNetHandler id.\n");
        return;
    }
    reply("Display the event flow on this object:%lld.\n", static_cast<long long>(id));
    CDebugSocket::DebugControl(OFF, true, -1);
    CDebugSocket::DebugControl(HANDLER, true, id);
}

void trace_class(ControlType type) {
    CDebugSocket::DebugControl(OFF, true, -1);
    CDebugSocket::DebugControl(type, true, -1);
}

void trace_all(const char*) {
    reply("Display socket event all processes.\n");
    trace_class(ALL);
}

void trace_read(const char*) {
    reply("Display socket read event flow.\n");
    trace_class(READ);
}

void trace_write(const char*) {
    reply("Display socket write event flow.\n");
    trace_class(WRITE);
}

void trace_exception(const char*) {
    reply("Display socket exception event flow.\n");
    trace_class(EXCEPTION);
}

void more(const char*) {
    reply("Display socket event flow high density.\n");
    CDebugSocket::DebugControl(DENSITY, true, -1);
}

void less(const char*) {
    reply("Display socket event flow low density.\n");
    CDebugSocket::DebugControl(DENSITY, false, -1);
}

void off(const char*) {
    reply("Turn off debugging.\n");
    CDebugSocket::DebugControl(RESET, false, -1);
}

// ---- the table -------------------------------------------------------------------------------------------

/// A word that must be there, compared over `length` characters. A length beyond the word's own includes its
/// end, and so wants the word exactly.
struct Word {
    const char* text;
    size_t length;

    bool matches(const char* typed) const { return std::strncmp(typed, text, length) == 0; }
};

struct Row {
    int words;  ///< How many words the line has. The third is a number.
    Word first;
    Word second;
    void (*action)(const char* third);
};

constexpr Word NONE = {"", 0};
constexpr Row ROWS[] = {
    {1, {"-v", 2}, NONE, &version},
    {1, {"-h", 2}, NONE, &usage},
    {1, {"--list", 6}, NONE, &list},
    {2, {"-S", 2}, {"-a", 2}, &trace_all},
    {2, {"-S", 2}, {"-r", 2}, &trace_read},
    {2, {"-S", 2}, {"-w", 2}, &trace_write},
    {2, {"-S", 2}, {"-e", 2}, &trace_exception},
    {2, {"-S", 2}, {"--more", 6}, &more},
    {2, {"-S", 2}, {"--less", 6}, &less},
    {2, {"-S", 2}, {"-off", 4}, &off},
    {3, {"-S", 2}, {"-fd", 3}, &follow_socket},
    {3, {"-S", 2}, {"-c", 3}, &follow_handler},
};

bool matches(const Row& row, int argc, char** argv) {
    return argc == row.words && row.first.matches(argv[0]) && (argc < 2 || row.second.matches(argv[1]));
}

}  // namespace

int OnConsole(int argc, char** argv) {
    for (const Row& row : ROWS) {
        if (matches(row, argc, argv)) {
            row.action(argc > 2 ? argv[2] : nullptr);
            return 0;
        }
    }
    reply(
        "The command you entered is incorrect,Please refer to the help manual to re-enter it!  ( ntf -h )\n");
    return 0;
}

void Usage() {
    static constexpr const char* lines[] = {
        "- ntf   -v                          Display version iformation.               -\n",
        "- ntf   -h                          Display help iformation.                  -\n",
        "- ntf   -S  -a                      Display socket event all processes.       -\n",
        "- ntf   -S  -r                      Display socket read event flow.           -\n",
        "- ntf   -S  -w                      Display socket write event flow.          -\n",
        "- ntf   -S  -e                      Display socket exception event flow.      -\n",
        "- ntf   -S  -fd+socket_id           Display the event flow sent by this socket.\n",
        "- ntf   -S  -c+CNetHandler_id       Display the event flow on this object.    -\n",
        "- ntf   -S  -off                    Turn off debugging.                       -\n",
        "- ntf   -S  --more                  Display socket event flow high density.   -\n",
        "- ntf   -S  --less                  Display socket event flow low density.    -\n",
    };
    INFRA_LOG_PLAIN(4, "%s", FRAME);
    INFRA_LOG_PLAIN(4, "-                           Reticor Debug help                           -\n");
    INFRA_LOG_PLAIN(4, "%s", FRAME);
    for (const char* line : lines) {
        INFRA_LOG_PLAIN(4, "%s", line);
    }
    INFRA_LOG_PLAIN(4, "%s", FRAME);
}

void Version() {
    CThreadPool::Version();
}

void Print_List() {
    using Flags = CDebugSocket;
    const auto shown = [](const std::atomic<int64_t>& value) { return static_cast<long long>(value.load()); };
    INFRA_LOG_PLAIN(4, "----------------------------------Debug List------------------------------\n");
    INFRA_LOG_PLAIN(4, " socket_all \t= %d .\n", Flags::socket_all.load());
    INFRA_LOG_PLAIN(4, " socket_read \t= %d .\n", Flags::socket_read.load());
    INFRA_LOG_PLAIN(4, " socket_write \t= %d .\n", Flags::socket_write.load());
    INFRA_LOG_PLAIN(4, " socket_exception = %d .\n", Flags::socket_exception.load());
    INFRA_LOG_PLAIN(4, " socket_fd = %d .\n", Flags::socket_fd.load());
    INFRA_LOG_PLAIN(4, " socket_fd_num = %lld .\n", shown(Flags::socket_fd_num));
    INFRA_LOG_PLAIN(4, " socket_nethandler = %d .\n", Flags::socket_nethandler.load());
    INFRA_LOG_PLAIN(4, " socket_nethandler_num = %lld .\n", shown(Flags::socket_nethandler_num));
    INFRA_LOG_PLAIN(4, " socket_off = %d .\n", Flags::socket_off.load());
    INFRA_LOG_PLAIN(4, " socket_dendity = %d .\n", Flags::socket_dendity.load());
    INFRA_LOG_PLAIN(4, "--------------------------------------------------------------------------\n");
}

bool InitConsoleDebug() {
    using Component::CComponentHelper;
    const Component::TComPtr<Manager::IConsole> console =
        CComponentHelper::getComponentFactory<Manager::IConsole>(Component::ClassID("Local"), "Console",
                                                                 Component::ServerInfo::none);
    if (console.empty()) {
        reply("Get IConsole component failed.\n");
        return false;
    }
    if (!console->registerCommand(Manager::ConsoleCommand(&OnConsole), "ntf", "ntf [-h]")) {
        reply("Register Reticor command failed.\n");
        return false;
    }
    return true;
}

}  // namespace Orvex::Reticor
