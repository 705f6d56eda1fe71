// The commands of gdb: on a process, on its core, with a stripped library, all without debug information.
//
// Where gdb is missing, or may not look at other processes, a case says so, and proves nothing.
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/program/ChildProcess.h"
#include "support/program/TempFolder.h"

namespace Orvex::Testing {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using Row = std::map<std::string, std::string>;

std::string run(const std::vector<std::string>& command) {
    ChildProcess process(command);
    const std::string output = process.exchange("");
    process.wait(ChildProcess::WORK_LIMIT_MS);
    return output;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// A table by its head; cells are two blanks apart at least.
std::vector<Row> tableOf(const std::string& text, const std::string& first_column) {
    const std::vector<std::string> lines = linesOf(text);
    auto line = std::find_if(lines.begin(), lines.end(), [&](const std::string& one) {
        return one.find_first_not_of(' ') == one.find(first_column) &&
               one.find(first_column) != std::string::npos;
    });
    const auto cellsOf = [](std::string one) {
        std::vector<std::string> cells;
        for (size_t at = one.find_first_not_of(' '); at != std::string::npos;) {
            const size_t end = one.find("  ", at);
            cells.push_back(one.substr(at, end - at));
            at = end == std::string::npos ? end : one.find_first_not_of(' ', end);
        }
        return cells;
    };
    std::vector<Row> rows;
    if (line == lines.end()) {
        return rows;
    }
    const std::vector<std::string> head = cellsOf(*line);
    while (++line != lines.end()) {
        const std::vector<std::string> cells = cellsOf(*line);
        if (cells.size() != head.size()) {
            break;
        }
        Row& row = rows.emplace_back();
        for (size_t i = 0; i < head.size(); ++i) {
            row[head[i]] = cells[i];
        }
    }
    return rows;
}

std::vector<std::string> column(const std::vector<Row>& rows, const std::string& name) {
    std::vector<std::string> cells;
    for (const Row& row : rows) {
        cells.push_back(row.count(name) != 0 ? row.at(name) : "");
    }
    return cells;
}

Row rowWith(const std::vector<Row>& rows, const std::string& name, const std::string& value) {
    for (const Row& row : rows) {
        if (row.count(name) != 0 && row.at(name) == value) {
            return row;
        }
    }
    ADD_FAILURE() << "no row where " << name << " is " << value;
    return Row{{"state", ""}, {"refs", ""},   {"socks", ""}, {"class", ""},   {"pool", ""},  {"object", ""},
               {"call", ""},  {"behind", ""}, {"bytes", ""}, {"waiting", ""}, {"frames", ""}};
}

// The program, its library in a folder of its own with the script beside it, and gdb.
class Debugger : public ::testing::Test {
protected:
    Debugger() {
        namespace fs = std::filesystem;
        for (const char* name : {"libReticor.so.1.0.0", "libOrvexInfra.so.1.0.0"}) {
            fs::copy_file(std::string(RETICOR_BUILD_DIR) + "/" + name, folder.file(name));
            fs::create_symlink(name, folder.file(std::string(name, std::strlen(name) - 4)));
        }
        fs::copy_file(std::string(RETICOR_SOURCE_DIR) + "/tools/gdb/reticor-gdb.py",
                      folder.file("libReticor.so.1.0.0-gdb.py"));
    }

    bool hasGdb() {
        if (std::system("gdb --batch -ex 'python print(1)' > /dev/null 2>&1") != 0) {
            std::puts("not tried: there is no gdb with Python here (script/bootstrap test installs it)");
            return false;
        }
        return true;
    }
    void strip() {
        ASSERT_EQ(0, std::system(("strip --strip-all " + folder.file("libReticor.so.1.0.0")).c_str()));
    }
    // Starts the program, and keeps what it says of itself.
    void start(const std::string& option = "") {
        std::vector<std::string> command{"env", "LD_LIBRARY_PATH=" + libraries, DEBUGGED_PROGRAM};
        if (!option.empty()) {
            command.push_back(option);
        }
        program = std::make_unique<ChildProcess>(command);
        for (std::string line = program->readLine(); line != "ready"; line = program->readLine()) {
            ASSERT_FALSE(program->hasEnded()) << line;
            const size_t blank = line.find(' ');
            if (line.substr(0, blank) == "sender") {
                senders.push_back(line.substr(blank + 1));
            } else {
                facts[line.substr(0, blank)] = line.substr(blank + 1);
            }
        }
    }
    // Runs gdb's commands; the script is found beside the library.
    std::string gdb(const std::vector<std::string>& target, const std::vector<std::string>& commands) {
        std::vector<std::string> line{"env",
                                      "LD_LIBRARY_PATH=" + libraries,
                                      "DEBUGINFOD_URLS=",
                                      "sh",
                                      "-c",
                                      "exec gdb \"$@\" 2>&1",
                                      "gdb",
                                      "--batch",
                                      "-nh",
                                      "-ex",
                                      "set pagination off"};
        for (const std::string& setting : early) {
            line.emplace_back("-iex");
            line.push_back(setting);
        }
        line.insert(line.end(), target.begin(), target.end());
        for (const std::string& command : commands) {
            line.emplace_back("-ex");
            line.push_back(command);
        }
        return run(line);
    }
    std::string onProcess(const std::vector<std::string>& commands) {
        return gdb({"-p", std::to_string(program->pid())}, commands);
    }
    // On a core that gdb itself has written.
    std::string onCore(const std::vector<std::string>& commands) {
        const std::string core = folder.file("core");
        const std::string written = onProcess({"generate-core-file " + core});
        EXPECT_TRUE(std::filesystem::exists(core)) << written;
        program.reset();
        return gdb({DEBUGGED_PROGRAM, core}, commands);
    }

    void expectHandlers(const std::string& output);
    void expectPools(const std::string& output);
    void expectSenders(const std::string& output);

    TempFolder folder;
    std::string libraries = folder.path();
    std::vector<std::string> early{"set auto-load safe-path " + folder.path()};  // before gdb loads anything
    std::unique_ptr<ChildProcess> program;
    Row facts;
    std::vector<std::string> senders;
};

void Debugger::expectHandlers(const std::string& output) {
    const std::vector<Row> rows = tableOf(output, "after_s");
    Row till = rowWith(rows, "id", facts["till"]);
    EXPECT_EQ("Shop::Till", till["class"]) << output;
    EXPECT_EQ("open", till["state"]);
    EXPECT_EQ("0", till["pool"]);
    EXPECT_EQ("1", till["socks"]);
    EXPECT_EQ(facts["object"], till["object"]);
    EXPECT_NE("0", rowWith(rows, "id", facts["elsewhere"])["pool"]);
    Row shelf = rowWith(rows, "id", facts["shelf"]);
    EXPECT_EQ("detached", shelf["state"]) << "a reference keeps it";
    EXPECT_EQ("1", shelf["refs"]);
    EXPECT_EQ("Shop::Shelf<int>", shelf["class"]);
    Row leaving = rowWith(rows, "id", facts["leaving"]);
    EXPECT_EQ("closing", leaving["state"]) << "no worker has taken the message";
    EXPECT_EQ("Shop::Shelf<Shop::Till>", leaving["class"]);
    EXPECT_EQ("Shop::Clerk", rowWith(rows, "id", facts["clerk"])["class"]);
    Row box = rowWith(rows, "id", facts["box"]);
    EXPECT_EQ("released", box["state"]) << "it lives on after its end";
    EXPECT_THAT(output, HasSubstr("\n" + std::to_string(rows.size()) + " handlers\n")) << "none was left out";
    // The oldest first.
    double before = 0;
    for (const std::string& after : column(rows, "after_s")) {
        EXPECT_LE(before, std::stod(after));
        before = std::stod(after);
    }
}

void Debugger::expectPools(const std::string& output) {
    const std::vector<Row> pools = tableOf(output, "pool");
    ASSERT_EQ(2u, pools.size()) << output;
    Row first = pools[0];
    EXPECT_EQ("0", first["pool"]);
    EXPECT_EQ(facts["workers"], first["workers"]);
    EXPECT_EQ(facts["workers"], first["in calls"]) << "each has a clerk";
    EXPECT_LE(6, std::stoi(first["waiting"])) << "five messages, and the one of a close";
    EXPECT_EQ("0", first["serial"]);
    Row second = pools[1];
    EXPECT_EQ("0", second["in calls"]);
    const std::vector<Row> threads = tableOf(output, "thread");
    EXPECT_EQ(static_cast<size_t>(std::stoi(first["workers"]) + std::stoi(second["workers"])),
              threads.size());
    const std::vector<std::string> numbers = column(threads, "gdb");
    EXPECT_EQ(numbers.size(), std::set<std::string>(numbers.begin(), numbers.end()).size())
        << "each has a number of its own";
    int in_calls = 0;
    for (Row thread : threads) {
        EXPECT_THAT(thread["gdb"], MatchesRegex("[0-9]+")) << "gdb knows the thread";
        if (thread["call"] != "-") {
            ++in_calls;
            EXPECT_EQ("handle_message", thread["call"]);
            EXPECT_EQ("Shop::Clerk", thread["class"]);
            EXPECT_EQ("0", thread["pool"]);
        }
    }
    EXPECT_EQ(std::stoi(facts["workers"]), in_calls);
    EXPECT_EQ("handle_message", rowWith(threads, "id", facts["clerk"])["call"]);
}

// The figures are those that the senders told by themselves.
void Debugger::expectSenders(const std::string& output) {
    const std::vector<Row> rows = tableOf(output, "buffer");
    ASSERT_EQ(5u, rows.size()) << output;
    ASSERT_EQ(5u, senders.size());
    std::vector<std::string> found;
    for (const std::string& told : senders) {
        std::istringstream words(told);
        std::string id, word, behind, frames, bytes;
        words >> id >> word >> behind >> word >> frames >> word >> bytes;
        Row row = rowWith(rows, "id", id);
        EXPECT_EQ(behind, row["behind"]) << output;
        EXPECT_EQ(frames, row["frames"]);
        EXPECT_EQ(bytes, row["bytes"]);
        found.push_back(row["state"]);
        EXPECT_EQ(found.size() == 5 ? "2" : "1", row["buffer"]);
    }
    EXPECT_THAT(found, ElementsAre("in a frame", "has caught up", "in a frame", "waits for room",
                                   "waits for a frame to begin with"));
    const std::string slow = senders[0].substr(0, senders[0].find(' '));
    EXPECT_LE(20, std::stol(rowWith(rows, "id", slow).at("blocked_ms"))) << output;
    EXPECT_LT(0, std::stol(rows[0].at("behind"))) << "who is behind most comes first";
    EXPECT_EQ((std::vector<std::string>{"1", "1", "1", "1", "2"}), column(rows, "buffer"));
    EXPECT_THAT(output, HasSubstr("\n5 senders\n"));
}

TEST_F(Debugger, ShowsAProcessThatRuns) {
    if (!hasGdb()) {
        return;
    }
    start();
    const std::string output = onProcess({"info handlers", "info senders", "info pools"});
    expectHandlers(output);
    expectSenders(output);
    expectPools(output);
    program->exchange("");
    EXPECT_EQ(0, program->wait()) << "it goes on after all of that";
}

TEST_F(Debugger, ShowsACore) {
    if (!hasGdb()) {
        return;
    }
    start();
    const std::string output = onCore({"info handlers", "info senders", "info pools"});
    expectHandlers(output);
    expectSenders(output);
    expectPools(output);
}

TEST_F(Debugger, ShowsACoreWithAStrippedLibrary) {
    if (!hasGdb()) {
        return;
    }
    strip();
    start();
    const std::string output = onCore({"info handlers", "info senders", "info pools"});
    expectHandlers(output);
    expectSenders(output);
    expectPools(output);
}

TEST_F(Debugger, ColumnsAreAligned) {
    if (!hasGdb()) {
        return;
    }
    start();
    const std::vector<std::string> lines = linesOf(onProcess({"info handlers"}));
    const auto head = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("after_s") != std::string::npos;
    });
    ASSERT_NE(lines.end(), head);
    const size_t object = head->find("object");
    const size_t id_end = head->find("  state");
    for (auto line = head + 1; line != lines.end() && line->find(" handlers") == std::string::npos; ++line) {
        EXPECT_EQ(object, line->find("0x")) << *line;
        EXPECT_NE(' ', line->at(id_end - 1)) << *line;
        EXPECT_NE(' ', line->back()) << "no blanks at the end";
    }
}

TEST_F(Debugger, ProcessWithoutAnythingHasEmptyLists) {
    if (!hasGdb()) {
        return;
    }
    start("nothing");
    EXPECT_THAT(onProcess({"info handlers", "info pools", "info senders"}),
                AllOf(HasSubstr("there are no handlers\n"), HasSubstr("there are no pools\n"),
                      HasSubstr("there are no senders\n")));
}

TEST_F(Debugger, ProgramThatDoesNotRunIsToldFromOneThatHasNothing) {
    if (!hasGdb()) {
        return;
    }
    const std::string script = std::string(RETICOR_SOURCE_DIR) + "/tools/gdb/reticor-gdb.py";
    EXPECT_THAT(gdb({DEBUGGED_PROGRAM}, {"source " + script, "info pools"}),
                HasSubstr("there is no Reticor here, or no process and no core"));
    EXPECT_THAT(gdb({}, {"source " + script, "info senders"}), HasSubstr("there is no Reticor here"));
}

TEST_F(Debugger, ArgumentsAreRefused) {
    if (!hasGdb()) {
        return;
    }
    start();
    EXPECT_THAT(onProcess({"info handlers 7"}), HasSubstr("this takes no argument"));
    EXPECT_THAT(gdb({}, {"source " + folder.file("libReticor.so.1.0.0-gdb.py"), "help info senders"}),
                HasSubstr("The senders of all media buffers of Reticor"));
}

// A table of another version, a foreign one, one without an entry: what a script of another release meets.
TEST_F(Debugger, TableThatTheScriptDoesNotKnowIsRefused) {
    if (!hasGdb()) {
        return;
    }
    start();
    const auto change = [](const std::string& what) {
        return "set var {int} ((char*) &reticor_debug_layout + " + what;
    };
    const std::string output = onProcess({change("16) = 99"), "info pools", "echo next\\n", change("16) = 1"),
                                          "info pools", "echo next\\n", change("20) = 3"), "info pools",
                                          "echo next\\n", change("0) = 7"), "info pools"});
    std::vector<std::string> parts;
    for (size_t at = 0; at <= output.size();) {
        const size_t end = std::min(output.find("next\n", at), output.size());
        parts.push_back(output.substr(at, end - at));
        at = end + 5;
    }
    ASSERT_EQ(4u, parts.size()) << output;
    EXPECT_THAT(parts[0], AllOf(HasSubstr("has version 99, and this script reads version 1"),
                                Not(HasSubstr("in calls"))));
    EXPECT_THAT(parts[1], HasSubstr("in calls"));
    EXPECT_THAT(parts[2], HasSubstr("the library's table knows no "));
    EXPECT_THAT(parts[3], HasSubstr("is no table of Reticor"));
}

// Of a process that has overwritten its own memory as much is shown as can be reached.
TEST_F(Debugger, DamagedListsAreShownAsFarAsTheyGo) {
    if (!hasGdb()) {
        return;
    }
    start();
    const std::string find =
        "python layout = Layout(); firsts = [layout.at(layout.shards + shard * layout.shard_size, "
        "'shard_first') "
        "for shard in range(layout.shard_count)]; link = next(first for first in firsts if first)";
    const auto damage = [](const std::string& next) {
        return "python import struct; gdb.selected_inferior().write_memory(link + layout.link_next, "
               "struct.pack('<Q', " +
               next + "))";
    };
    EXPECT_THAT(onProcess({find, damage("0x10"), "info handlers", damage("link"), "info handlers"}),
                AllOf(HasSubstr(" breaks off at 0x10\n"), HasSubstr(" leads in a circle at 0x"),
                      HasSubstr(" handlers\n")));
}

// Beside the library it is found since the test says so; below gdb's own data folder without being told.
TEST_F(Debugger, ScriptIsInstalledWhereGdbLooksForIt) {
    namespace fs = std::filesystem;
    const std::string prefix = fs::canonical(folder.path()).string() + "/usr";
    const std::string installed =
        run({"cmake", "--install", RETICOR_BUILD_DIR, "--prefix", prefix, "--component", "gdb"});
    std::vector<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(prefix)) {
        if (entry.is_regular_file()) {
            found.push_back(entry.path().string());
        }
    }
    ASSERT_EQ(1u, found.size()) << installed;
    const std::string data = prefix + "/share/gdb/auto-load";
    ASSERT_EQ(0u, found[0].find(data + prefix + "/lib")) << found[0];
    const std::string script = found[0].substr(data.size());
    EXPECT_EQ("libReticor.so.1.0.0-gdb.py", fs::path(script).filename().string());
    if (!hasGdb()) {
        return;
    }
    fs::remove(folder.file("libReticor.so.1.0.0-gdb.py"));
    const std::string library = fs::path(script).parent_path().string();
    fs::create_directories(library);
    for (const char* name :
         {"libReticor.so.1", "libReticor.so.1.0.0", "libOrvexInfra.so.1", "libOrvexInfra.so.1.0.0"}) {
        fs::rename(folder.file(name), library + "/" + name);
    }
    libraries = library;
    start();
    early = {"set auto-load scripts-directory " + data, "set auto-load safe-path " + data};
    EXPECT_THAT(onProcess({"info senders"}), HasSubstr("5 senders"));
}

}  // namespace
}  // namespace Orvex::Testing
