// Programs: the servers, loads and producers that this program has in it, and what was left out.
#pragma once

#include <string>
#include <vector>

namespace bench {

/// What ran as a program of its own before it became a part of this one: the sources are those of bench/.
using Main = int (*)(int argc, char** argv);

/// Null if there is none of that name, or it was left out.
Main findProgram(const std::string& name);

/// One that does the work of a benchmark.
struct Contender {
    const char* name;     ///< As it is shown.
    const char* program;  ///< Of `findProgram`.
    bool is_peer;         ///< It does not use this library.

    bool is_built_in() const { return findProgram(program) != nullptr; }
};

const std::vector<Contender>& echoContenders();
const std::vector<Contender>& fanoutContenders();
const std::vector<Contender>& messageContenders();

}  // namespace bench
