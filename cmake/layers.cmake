# Which room may include which: a room sees itself and the rooms named here, nothing else.
# docs/architecture.md explains the table. It is checked when CMake configures and again by the
# test `layers`.
set(METRIX_ROOMS
   corvax plexa quen hostctl agentdCommon hostsvc guestsvc qsh/framework metrix
   metrix/dynamic inventory linuxHost linuxHost/libvirt simHost agentd qsh agentctl)

set(SEES_corvax "")
set(SEES_plexa corvax)
set(SEES_quen plexa corvax)
set(SEES_hostctl corvax)
set(SEES_agentdCommon quen plexa hostctl corvax)
set(SEES_hostsvc quen plexa hostctl corvax)
set(SEES_guestsvc quen plexa hostctl corvax)
# Within metrix the kernel library and the services behind it are for the kernel collector alone.
set(SEES_metrix agentdCommon quen plexa corvax)
set(SEES_qsh/framework corvax)
set(SEES_metrix/dynamic metrix qsh/framework)
set(SEES_inventory agentdCommon hostsvc guestsvc quen plexa hostctl corvax)
set(SEES_linuxHost inventory agentdCommon hostsvc guestsvc quen plexa hostctl corvax)
# The only room that knows the hypervisor's library.
set(SEES_linuxHost/libvirt linuxHost quen plexa hostctl corvax)
set(SEES_simHost inventory agentdCommon hostsvc guestsvc quen plexa hostctl corvax)
set(SEES_qsh qsh/framework hostctl corvax)
set(SEES_agentctl corvax)
set(SEES_agentd linuxHost simHost inventory agentdCommon hostsvc guestsvc quen plexa hostctl corvax)

# Single files that see more than the rest of their room.
set(SEES_metrix/hykStatsCollector.h hostsvc guestsvc hostctl)
set(SEES_metrix/hykStatsCollector.cpp hostsvc guestsvc hostctl)
set(SEES_metrix/hykStatsCollectorVm.cpp hostsvc guestsvc hostctl)
set(SEES_metrix/qshCommands.h qsh/framework)
set(SEES_metrix/qshCommands.cpp qsh/framework)
