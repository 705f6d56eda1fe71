// Everything that Reticor offers.
#pragma once

#include <Reticor/MediaBuffer.h>
#include <Reticor/MediaPacket.h>
#include <Reticor/MediaStreamReceiver.h>
#include <Reticor/MediaStreamSender.h>
#include <Reticor/NTimer.h>
#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>
#include <Reticor/R3.h>
#include <Reticor/SimulatorStream.h>
#include <Reticor/Sock.h>
#include <Reticor/SockAcceptor.h>
#include <Reticor/SockAddr.h>
#include <Reticor/SockAddrIPv4.h>
#include <Reticor/SockAddrIPv6.h>
#include <Reticor/SockAddrStorage.h>
#include <Reticor/SockDgram.h>
#include <Reticor/SockStream.h>
#include <Reticor/SslAcceptor.h>
#include <Reticor/SslStream.h>
#include <Reticor/StrParser.h>
#include <Reticor/StreamSender.h>
#include <Reticor/TsMemory.h>
