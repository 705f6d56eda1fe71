// The console command `ntf`: traces the socket event flow of a running process, filtered as its words say.
#pragma once

namespace Orvex::Reticor {

/// Asks for the component "Console" and gives it the command `ntf`. True if the console took it. Otherwise a
/// frame at level 4 tells why not. Called for every set-up and every pool, so a console is asked again.
bool InitConsoleDebug();

/// The command: `argc` words follow `ntf`, the first is `argv[0]`. What it says goes to the log at level 4,
/// what it switches on to level 3. Always 0. Any thread.
int OnConsole(int argc, char** argv);

void Usage();
void Version();
void Print_List();

}  // namespace Orvex::Reticor
