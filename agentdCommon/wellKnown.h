#pragma once

/// Ids and channel names that the agent's parts share.
namespace AgentdCommon {

/// The host: its managed object, and the entity of all its statistics.
constexpr char moid_hostsystem[] = "ha-host";
/// The performance manager.
constexpr char moid_perfmgr[] = "ha-perfmgr";
/// The resource manager.
constexpr char moid_resourcemgr[] = "ha-resource-mgr";
/// The virtual-machine service.
constexpr char moid_guestsvc[] = "ha-guestsvc";

constexpr char MQ_RESOURCE_POOL_DESTROYED[] = "/resourcePool/destroyed";
constexpr char MQ_HOSTSYSTEM[] = "/host/";
constexpr char MQ_NETSYSTEM[] = "/host/netsys/";
constexpr char MQ_DSSYSTEM[] = "/host/dssys/";
constexpr char MQ_STORAGEPROVIDER[] = "/host/storageProvider";
constexpr char MQ_HYKEVENT_ALERT[] = "/hykernel/alert/";
constexpr char MQ_HYKEVENT_LOAD[] = "/hykernel/load/";
constexpr char MQ_HYKEVENT_NETWORK_PNIC[] = "/hykernel/network/pnic/";
constexpr char MQ_HYKEVENT_STORAGE_LUN[] = "/hykernel/storage/lun/";
constexpr char MQ_HYKEVENT_STORAGE_HYKFS[] = "/hykernel/storage/hykfs/";
constexpr char MQ_HYKEVENT_STORAGE_NFS[] = "/hykernel/storage/nfs/";
constexpr char MQ_MAINTENANCE_MGR_DONE[] = "/host/modemgr/done/";

} // namespace AgentdCommon
