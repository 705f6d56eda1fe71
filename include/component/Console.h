// Manager::IConsole: the console of a process, where an operator types commands.
#pragma once

#include <Infra/Function.h>
#include <component/ComPtr.h>

namespace Orvex::Manager {

/// A command gets the number of words after its name, and the words; the first of them is `argv[0]`. The
/// words are the console's, and good for the call only. The console does nothing with the result.
using ConsoleCommand = Infra::TFunction2<int, int, char**>;

/// What a product implements, and offers as the component "Console" of the family "Local", to have the
/// library's command `ntf` on its console. The library asks for it whenever a pool is created.
class INFRA_API IConsole : public Component::IUnknown {
public:
    /// Adds a command. `name` and `help` are literals. The command may be called on any thread and for as
    /// long as the process lives. False if it cannot be added, for instance because the name is taken.
    /// Called with a lock of the library held, so it must not create or destroy pools.
    virtual bool registerCommand(const ConsoleCommand& command, const char* name, const char* help) = 0;

protected:
    ~IConsole() override = default;
};

}  // namespace Orvex::Manager
