# The wings of the house. Each folder below is an object library of its own, on a floor; it may use wings of lower
# floors and no others. script/check_includes reads this table too.
#
#   reticor_wing(floor folder [NEXT_TO folder...] [DOORS module...])
#
# NEXT_TO: wings of its own floor that it may use all the same. DOORS: its headers that other wings may include.
# A new source needs no line here; a new folder needs one.
set(RETICOR_WINGS "" CACHE INTERNAL "")

# Where tests are compiled in batches, a build with sanitizers has its libraries so too: it only runs tests. What looks
# at single objects (names, start-up code, knots, witnesses) looks at a build without them. The door of the debug
# server stays an object of its own, since one test program has it opened.
set(reticor_libraries_in_batches OFF)
if(RETICOR_TEST_BATCHES AND RETICOR_SANITIZE)
  set(reticor_libraries_in_batches ON)
  # Test programs stand before this function, which a caller in the same object would not notice.
  set_source_files_properties(Src/Core/record/GeneralAllocator.cpp PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endif()

function(reticor_wing floor folder)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "NEXT_TO;DOORS")
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Src/${folder}/*.cpp)
  if(NOT sources)
    message(FATAL_ERROR "Src/${folder} has no sources: the table in cmake/Wings.cmake is out of date")
  endif()
  string(REPLACE / _ name wing_${folder})
  string(TOLOWER ${name} name)
  set(below ${arg_NEXT_TO})
  list(TRANSFORM below REPLACE / _)
  list(TRANSFORM below TOLOWER)
  list(TRANSFORM below PREPEND wing_)
  foreach(other IN LISTS RETICOR_WINGS)
    get_target_property(other_floor ${other} RETICOR_FLOOR)
    if(other_floor LESS floor)
      list(APPEND below ${other})
    endif()
  endforeach()
  add_library(${name} OBJECT ${sources})
  reticor_library_objects(${name})
  target_include_directories(${name} PRIVATE
    ${PROJECT_SOURCE_DIR}/Src ${PROJECT_SOURCE_DIR}/include
    ${PROJECT_SOURCE_DIR}/foundation/include ${PROJECT_SOURCE_DIR}/foundation/inner)
  if(reticor_libraries_in_batches AND NOT ${PROJECT_SOURCE_DIR}/Src/${folder}/R3Server.cpp IN_LIST sources)
    reticor_in_batches(${name})
  endif()
  set_target_properties(${name} PROPERTIES RETICOR_FLOOR ${floor} RETICOR_BELOW "${below}")
  set(RETICOR_WINGS ${RETICOR_WINGS} ${name} CACHE INTERNAL "")

  # Log lines and assertions say Src/Core/Event.cpp wherever below Src/Core the file lies. g++ takes the last match,
  # so these follow the map of the root in reticor_options.
  if(folder MATCHES "^([A-Za-z0-9]+)/")
    target_compile_options(reticor_options INTERFACE
      -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/Src/${folder}/=Src/${CMAKE_MATCH_1}/)
  endif()
endfunction()

reticor_wing(1 Core/count DOORS AlarmSpan ClassRows ObjectRoll Points Spread Tally ThreadCounts Timing WatchDoor)
reticor_wing(1 Core/record NEXT_TO Core/count DOORS Event EventFreeList GeneralAllocator MemTables SockRecord WorkQueue)
reticor_wing(1 Kit/call DOORS ConnectionMail DelayedCall SerialWord UserCall)
reticor_wing(1 Kit/resolve DOORS Resolver)
reticor_wing(1 R3/print DOORS DebugSocket FuncBox HelpText PrintInPieces R3Printf)
reticor_wing(1 Socket/address DOORS IpLiteral SockAddrRecord SockError)
reticor_wing(1 Tool/batch DOORS BatchWriter WriteRing)
reticor_wing(1 Tool/task DOORS FileTask FileTaskQueue)
reticor_wing(2 Core/handle DOORS CallMark ClassName HandlerDrops HandlerInternal HandlerList HandlerPin HolderNotes ObjectId ObjectTable OwnerDoor)
reticor_wing(2 Socket/socket DOORS CloseCount JoinRefusals SocketWriter WatchedNumbers)
reticor_wing(2 Tool/device DOORS StorDev)
reticor_wing(2 Tool/frame DOORS ChannelBook DropBook FrameRest FrameStore LevelRing MediaFrame MediaTrace SenderCourses StartCache StepAhead Thinning)
reticor_wing(2 Tool/judge DOORS BurstBook EndedVerdicts SenderWatch VerdictText)
reticor_wing(2 Tool/text)
reticor_wing(3 Core/watch DOORS BTree Select_win)
reticor_wing(3 Socket/doctor)
reticor_wing(3 Tool/datagram DOORS FrameCut)
reticor_wing(4 Core/pool DOORS PoolLease PoolTable ThreadPool)
reticor_wing(5 Core/service DOORS DeadNumbers LateTimers Message NetSock NetTimer RoomWatch SockTimer)
reticor_wing(6 Core/reactor)
reticor_wing(6 Core/stats DOORS HandlerListing LeftHandlers MediaSource StatsServer StuckWatch)
reticor_wing(7 Tool/file DOORS FileThread NFileEnd)
reticor_wing(7 Tool/step DOORS AutoSend CoreRoll CoreSeat FrameFilter MediaStep MoveLine OtherData SendProcedure SenderHandler SenderNotices SenderSettings TapLine TargetStepMark)
reticor_wing(7 Tool/media NEXT_TO Tool/step DOORS MediaBufferState SenderLook)
reticor_wing(7 Tool/receive DOORS ReceiverGroup)
reticor_wing(7 Tool/stream)
reticor_wing(7 Tool/tick)
reticor_wing(8 Core/debugger)
reticor_wing(8 R3/server DOORS Debug)
reticor_wing(8 Tool/verdict DOORS MediaSnapshot)
reticor_wing(9 Core)
reticor_wing(10 Tool/lane)
reticor_wing(10 Kit DOORS ConnectionBody Member PoolState)
reticor_wing(11 Kit/connect)

# A name that is not a wing would leave its objects without their guards in silence.
foreach(name IN LISTS RETICOR_GUARDED_OBJECTS)
  if(NOT TARGET ${name})
    message(FATAL_ERROR "cmake/CompileOptions.cmake guards ${name}, which is not there")
  endif()
endforeach()

# All wings together, for programs that reach what is hidden.
add_library(reticor_objects INTERFACE)
target_include_directories(reticor_objects INTERFACE
  ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/foundation/include)
target_link_libraries(reticor_objects INTERFACE Threads::Threads)
set(RETICOR_OBJECTS "")
foreach(wing IN LISTS RETICOR_WINGS)
  target_sources(reticor_objects INTERFACE $<TARGET_OBJECTS:${wing}>)
  list(APPEND RETICOR_OBJECTS $<TARGET_OBJECTS:${wing}>)
endforeach()

# `witnesses` links each wing with what stands below it and nothing else: an upward call does not link. Sanitizers
# leave their run time undefined in a library, so there are none in such builds.
if(NOT RETICOR_SANITIZE AND NOT RETICOR_COVERAGE)
  add_custom_target(witnesses)
  foreach(wing IN LISTS RETICOR_WINGS)
    get_target_property(below ${wing} RETICOR_BELOW)
    set(objects $<TARGET_OBJECTS:${wing}> $<TARGET_OBJECTS:infra_objects>)
    foreach(other IN LISTS below)
      list(APPEND objects $<TARGET_OBJECTS:${other}>)
    endforeach()
    add_library(witness_${wing} SHARED EXCLUDE_FROM_ALL ${objects})
    set_target_properties(witness_${wing} PROPERTIES
      LINKER_LANGUAGE CXX LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/witnesses)
    target_link_libraries(witness_${wing} PRIVATE Threads::Threads)
    target_link_options(witness_${wing} PRIVATE -Wl,-z,defs)
    add_dependencies(witnesses witness_${wing})
  endforeach()
endif()
