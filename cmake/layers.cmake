# Who may include whom, and which system headers and libraries a room takes.
#
#    room(NAME SEES ROOM... TAKES GROUP...)
#
# A room is a directory, or within metrix/ a family of files: its path without ".h" and ".cpp". A
# file belongs to the room with the longest matching name. It may include its own room and the rooms
# that it sees; `x/*` is x with all rooms below it. Headers of the C++ standard library are free
# except those in a group; every other header in <> must be in a group that the room takes.
# docs/architecture.md explains the table. CMake checks it when it configures, and `scripts/lint`.

macro(room name)
   cmake_parse_arguments(ARG "" "" "SEES;TAKES" ${ARGN})
   if(ARG_UNPARSED_ARGUMENTS)
      message(FATAL_ERROR "room(${name}): unknown argument ${ARG_UNPARSED_ARGUMENTS}")
   endif()
   list(APPEND ROOMS ${name})
   set("SEES_${name}" ${ARG_SEES})
   set("TAKES_${name}" ${ARG_TAKES})
endmacro()

# A header with a slash at the end is a whole directory of headers.
set(HEADERS_files fcntl.h unistd.h dirent.h sys/stat.h sys/sysmacros.h sys/file.h sys/mman.h
   sys/syscall.h filesystem fstream)
set(HEADERS_sockets sys/socket.h sys/un.h netinet/ arpa/ netdb.h)
set(HEADERS_polling poll.h sys/epoll.h sys/eventfd.h)
set(HEADERS_locks mutex shared_mutex condition_variable semaphore latch barrier future)
set(HEADERS_threads thread stop_token pthread.h sched.h)
set(HEADERS_processes sys/wait.h sys/resource.h sys/prctl.h sys/types.h spawn.h signal.h csignal
   sys/signalfd.h stdlib.h)
set(HEADERS_modules dlfcn.h)
set(HEADERS_time time.h sys/time.h)
set(HEADERS_terminal unistd.h termios.h sys/ioctl.h pty.h)
set(HEADERS_xml pugixml.hpp)
set(HEADERS_spdlog spdlog/ fmt/)
set(HEADERS_json nlohmann/)
set(HEADERS_commandLine CLI/)
set(HEADERS_httplib httplib.h)
set(HEADERS_libvirt libvirt/)
set(HEADERS_lineEditing histedit.h)
set(HEADERS_zlib zlib.h)
set(HEADERS_gtest gtest/ gmock/)
set(HEADERS_benchmark benchmark/)
set(HEADERS_peers sqlite3.h rrd.h)
set(GROUPS files sockets polling locks threads processes modules time terminal xml spdlog json
   commandLine httplib libvirt lineEditing zlib gtest benchmark peers)

# From the bottom of the house to the top.
room(corvax TAKES files locks threads processes modules time xml spdlog)
room(plexa SEES corvax)
room(quen SEES plexa corvax)
room(hostctl SEES corvax)
set(interfaces quen plexa hostctl corvax)
room(agentdCommon SEES ${interfaces})
room(hostsvc SEES ${interfaces})
room(guestsvc SEES ${interfaces})
set(services agentdCommon hostsvc guestsvc)
room(qsh/framework SEES corvax)

# Within metrix arrows point down, too. It takes no library and no system header.
room(metrix/statTypes)
room(metrix/littleEndian)
room(metrix/storeFormat SEES metrix/littleEndian metrix/statTypes)
room(metrix/idMapFormat SEES metrix/littleEndian)
room(metrix/columnRing SEES metrix/statTypes)
room(metrix/rollupFunctions SEES metrix/statTypes)
room(metrix/slotUsageMap SEES corvax)
room(metrix/rowWindow SEES metrix/littleEndian corvax)
room(metrix/crc32c SEES metrix/littleEndian)
room(metrix/journalEntries SEES metrix/statTypes corvax)
room(metrix/journalFormat SEES metrix/crc32c metrix/littleEndian metrix/statTypes)
room(metrix/journalReader SEES metrix/journalFormat metrix/statTypes corvax)
room(metrix/journal
   SEES metrix/journalReader metrix/journalEntries metrix/journalFormat metrix/statTypes corvax)
room(metrix/storeHead
   SEES metrix/journalEntries metrix/columnRing metrix/storeFormat metrix/statTypes corvax)
set(store metrix/storeHead metrix/journalEntries metrix/journalFormat metrix/rowWindow
   metrix/columnRing metrix/storeFormat metrix/statTypes corvax)
room(metrix/statsStore SEES metrix/statsStoreImpl ${store})
room(metrix/statsStoreImpl SEES metrix/statsStore ${store})
room(metrix/statsStoreColumns SEES metrix/statsStoreImpl metrix/statsStore ${store})
room(metrix/statsStoreHead SEES metrix/statsStoreImpl metrix/statsStore ${store})
room(metrix/idMapFile SEES metrix/rowWindow metrix/idMapFormat metrix/statTypes corvax)
room(metrix/intervalTable SEES metrix/statsStore corvax)
room(metrix/depotAside SEES corvax)
room(metrix/statsDepot SEES metrix/statTypes corvax) # the interface alone
foreach(part IN ITEMS Impl Registry Deletion Propagation Recovery Checkpoint
      Commit)
   room(metrix/statsDepot${part} SEES metrix/statsDepotImpl metrix/statsDepot metrix/intervalTable
      metrix/storeFormat
      metrix/statsStore metrix/journal metrix/journalReader metrix/journalEntries
      metrix/idMapFile metrix/slotUsageMap metrix/rollupFunctions corvax)
endforeach()
room(metrix/statsMetadata SEES metrix/statsDepot quen plexa corvax)
room(metrix/counterIds)
room(metrix/counterTable
   SEES metrix/counterIds metrix/statsMetadata metrix/statsDepot quen plexa corvax)
room(metrix/clockWatch SEES corvax)
room(metrix/baseStatsCollector SEES metrix/clockWatch metrix/statsMetadata metrix/statsDepot
   metrix/statTypes agentdCommon quen plexa corvax)
room(metrix/mockupStatsCollector
   SEES metrix/baseStatsCollector metrix/counterIds agentdCommon quen plexa corvax)
room(metrix/ptrObj SEES corvax)
set(hykCollector metrix/baseStatsCollector metrix/counterIds metrix/ptrObj ${services}
   ${interfaces})
room(metrix/hykStatsCollector SEES ${hykCollector})
room(metrix/hykStatsCollectorGroups SEES metrix/hykStatsCollector ${hykCollector})
room(metrix/hykStatsCollectorVm SEES metrix/hykStatsCollector ${hykCollector})
room(metrix/sampleInfoCache SEES metrix/statTypes quen plexa corvax)
set(manager metrix/sampleInfoCache metrix/hykStatsCollector metrix/mockupStatsCollector
   metrix/baseStatsCollector metrix/statsMetadata metrix/counterIds metrix/statsDepot
   metrix/depotAside agentdCommon quen plexa corvax)
room(metrix/performanceManagerImpl SEES ${manager})
room(metrix/performanceManagerQuery SEES metrix/performanceManagerImpl ${manager})
room(metrix/qshCommands SEES metrix/statsDepot qsh/framework corvax)
room(metrix/selfTest SEES metrix/statsDepot corvax)
room(metrix/metrix SEES metrix/performanceManagerImpl metrix/selfTest agentdCommon corvax)
room(metrix/dynamic SEES metrix/metrix metrix/qshCommands qsh/framework corvax)

room(inventory SEES ${services} ${interfaces} TAKES locks)
room(linuxHost/kernel SEES hostctl corvax TAKES files)
room(linuxHost
   SEES linuxHost/kernel inventory ${services} ${interfaces} TAKES files locks threads)
# The only room that knows the hypervisor's library.
room(linuxHost/libvirt
   SEES linuxHost linuxHost/kernel ${interfaces} TAKES locks threads libvirt xml)
room(simHost SEES inventory ${services} ${interfaces} TAKES locks)

room(http SEES corvax TAKES sockets polling locks httplib)
room(managementApi SEES http ${services} quen plexa corvax TAKES json)
room(console SEES corvax TAKES processes commandLine)
room(agentd SEES console managementApi http linuxHost simHost inventory ${services} ${interfaces}
   TAKES files polling processes commandLine)
room(qsh SEES qsh/framework console corvax TAKES processes terminal lineEditing commandLine)
room(agentctl SEES console corvax TAKES polling threads processes terminal json httplib commandLine)
# The depot's files, and nothing of the plug-in above them.
room(depotTool SEES metrix/columnRing metrix/idMapFile metrix/idMapFormat metrix/journalEntries
   metrix/journalReader metrix/littleEndian metrix/rollupFunctions metrix/rowWindow metrix/statTypes
   metrix/statsDepot metrix/statsStore metrix/storeFormat metrix/storeHead console corvax
   TAKES processes json commandLine)

# Tests and measurements see what they exercise; they may take any system header.
set(system files sockets polling locks threads processes modules time terminal)
set(fakes tests/fakes ${services} ${interfaces})
room(tests/fakes SEES linuxHost ${services} ${interfaces} TAKES ${system} gtest)
room(tests/corvax SEES ${fakes} TAKES ${system} gtest)
room(tests/metrix SEES metrix/* ${fakes} TAKES ${system} gtest)
room(tests/linuxHost SEES linuxHost linuxHost/kernel inventory ${fakes} TAKES ${system} gtest)
room(tests/linuxHost/kernel SEES linuxHost/kernel ${fakes} TAKES ${system} gtest)
room(tests/linuxHost/libvirt SEES linuxHost/libvirt linuxHost ${fakes} TAKES ${system} gtest)
room(tests/simHost SEES simHost metrix/* inventory ${fakes} TAKES ${system} gtest)
room(tests/http SEES http ${fakes} TAKES ${system} gtest zlib)
room(tests/managementApi SEES managementApi http metrix/* tests/metrix ${fakes}
   TAKES ${system} gtest httplib)
room(tests/console SEES console ${fakes} TAKES ${system} gtest)
room(tests/agentctl SEES agentctl http ${fakes} TAKES ${system} gtest)
room(tests/depotTool SEES depotTool metrix/* ${fakes} TAKES ${system} gtest json)
room(tests/qsh SEES qsh/framework ${fakes} TAKES ${system} gtest)
room(bench SEES metrix/* simHost linuxHost linuxHost/kernel linuxHost/libvirt inventory ${services}
   ${interfaces} TAKES ${system} benchmark libvirt)
room(bench/peers SEES corvax TAKES ${system} peers)
