// Everything of the kit: servers, connections, timers and posted lambdas, with no class to derive from.
#pragma once

#include <Reticor/kit/Connect.h>
#include <Reticor/kit/Connection.h>
#include <Reticor/kit/Pool.h>
#include <Reticor/kit/Server.h>
#include <Reticor/kit/Task.h>
#include <Reticor/kit/Timer.h>
#include <Reticor/kit/UniqueFunction.h>
