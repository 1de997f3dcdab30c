// The community store's items, loading and bus commands.
#include <iostream>

#include "agent/community_keep.h"
#include "agent/snmp_looper.h"
#include "request/usm.h"

namespace {

tn::message withCommand(tn::message m, uint32_t cmd) {
    m.insert(tn::u32_id(tn::F_COMMAND), cmd);
    return m;
}

}  // namespace

tn::message CommunityKeep::Item::getCfg() const {
    tn::message m;
    m.insert(tn::u32_id(tn::F_OBJ_ID), id);
    m.insert(tn::string_id(C_NAME), name);
    m.insert(tn::be32_id(C_ADDRESS), address);
    m.insert(tn::be32_id(C_NETMASK), netmask);
    m.insert(tn::bool_id(C_READ), readAccess);
    m.insert(tn::bool_id(C_WRITE), writeAccess);
    m.insert(tn::string_id(C_AUTH_PASSWORD), authPassword);
    m.insert(tn::string_id(C_PRIV_PASSWORD), privPassword);
    m.insert(tn::u32_id(C_AUTH_PROTOCOL), authProtocol);
    m.insert(tn::u32_id(C_PRIV_PROTOCOL), privProtocol);
    m.insert(tn::u32_id(C_LEVEL), securityLevel);
    return m;
}

void CommunityKeep::Item::setCfg(tn::message const& m) {
    name = m.get(tn::string_id(C_NAME), name);
    address = m.get(tn::be32_id(C_ADDRESS), address);
    netmask = m.get(tn::be32_id(C_NETMASK), netmask);
    readAccess = m.get(tn::bool_id(C_READ), readAccess);
    writeAccess = m.get(tn::bool_id(C_WRITE), writeAccess);
    authPassword = m.get(tn::string_id(C_AUTH_PASSWORD), authPassword);
    privPassword = m.get(tn::string_id(C_PRIV_PASSWORD), privPassword);
    authProtocol = m.get(tn::u32_id(C_AUTH_PROTOCOL), authProtocol);
    privProtocol = m.get(tn::u32_id(C_PRIV_PROTOCOL), privProtocol);
    if (loop) regenerateKeys();
    securityLevel = m.get(tn::u32_id(C_LEVEL), securityLevel);
}

void CommunityKeep::Item::setAllCfg(tn::message const& m) {
    id = m.get(tn::u32_id(tn::F_OBJ_ID), id);
    setCfg(m);
}

void CommunityKeep::Item::regenerateKeys() {
    // Only the two digests of the table exist; an unknown protocol number
    // leaves the user without keys, so its messages fail authentication.
    if (authProtocol > 1) {
        authKey.clear();
        privKey.clear();
        return;
    }
    std::string const& engineID = loop->engine.engineID;
    authKey = bKeyToDKey(aKeyToBKey(passwordToAKey(authPassword, authProtocol), engineID, authProtocol),
                         authProtocol);
    // The privacy key is localised with the authentication protocol's digest.
    privKey = aKeyToBKey(passwordToAKey(privPassword, authProtocol), engineID, authProtocol);
}

CommunityKeep::Item* CommunityKeep::byId(uint32_t id) {
    for (Item* item : items_)
        if (item->id == id) return item;
    return nullptr;
}

void CommunityKeep::init() {
    std::vector<std::pair<uint32_t, tn::message>> stored = store_.all();
    for (auto const& entry : stored) {
        Item* item = new Item;
        item->setAllCfg(entry.second);
        items_.push_back(item);
        allocator_.take(entry.first);
    }
    if (!stored.empty()) return;
    Item* item = new Item;
    item->id = allocator_.allocate(0);
    item->name = "vellum";
    item->readAccess = true;
    item->securityLevel = 0;
    store_.set(item->id, item->getCfg());
    items_.push_back(item);
}

tn::message CommunityKeep::cmdGetAll(tn::message const&, uint32_t start, uint32_t count) {
    if (count < 1 || count > 20) count = 20;
    Items::iterator it = items_.begin();
    if (start != 0xFFFFFFFF) {
        while (it != items_.end() && (*it)->id != start) ++it;
        if (it == items_.end()) return tn::errorMsg(tn::ERR_UNKNOWN_START, "");
    }
    std::vector<tn::message> list;
    for (; it != items_.end() && list.size() < count; ++it) list.push_back((*it)->getCfg());
    tn::message r;
    r.insert(tn::message_array_id(tn::F_OBJECTS), list);
    if (it != items_.end()) r.insert(tn::u32_id(tn::F_START), (*it)->id);
    return r;
}

tn::message CommunityKeep::cmdGetObj(tn::message const&, uint32_t id) {
    Item* item = byId(id);
    if (!item) return tn::errorMsg(tn::ERR_NO_OBJECT, "");
    return item->getCfg();
}

tn::message CommunityKeep::getObject(uint32_t id) {
    if (Item* item = byId(id)) return item->getCfg();
    tn::message m;
    m.insert(tn::u32_id(tn::F_OBJ_ID), id);
    m.insert(tn::u32_id(tn::F_NOT_EXIST), 1u);
    return m;
}

tn::message CommunityKeep::cmdSetObj(tn::message const& req, uint32_t id) {
    // A request that names no community must not fall back on id 0.
    if (!req.has(tn::u32_id(tn::F_OBJ_ID))) return tn::errorMsg(tn::ERR_NO_OBJECT, "");
    Item* item = byId(id);
    if (!item) return tn::errorMsg(tn::ERR_NO_OBJECT, "");
    if (req.has(tn::string_id(C_NAME))) {
        Items::iterator other = find(req.get(tn::string_id(C_NAME)));
        if (other != items_.end() && *other != item)
            return tn::errorMsg(tn::ERR_REFUSED, "community with such name already exists");
    }
    tn::message undo = withCommand(item->getCfg(), tn::CMD_SET_OBJ);
    item->setCfg(req);
    store_.set(id, item->getCfg());
    notifyChange(id, req);
    sendUndo(req, undo, "changed snmp community settings");
    return tn::message();
}

tn::message CommunityKeep::cmdAddObj(tn::message const& req) {
    if (!req.has(tn::string_id(C_NAME))) return tn::errorMsg(tn::ERR_MISSING_FIELD, "missing community name");
    std::string name = req.get(tn::string_id(C_NAME));
    if (name.empty()) return tn::errorMsg(tn::ERR_REFUSED, "empty script name");
    if (find(name) != items_.end())
        return tn::errorMsg(tn::ERR_REFUSED, "community with such name already exists");

    uint32_t id;
    if (req.has(tn::u32_id(tn::F_OBJ_ID))) {
        id = req.get(tn::u32_id(tn::F_OBJ_ID));
        // An id in use would give two communities one store object, and the
        // older one would be gone after a restart.
        if (!allocator_.take(id)) return tn::errorMsg(tn::ERR_REFUSED, "community with such id already exists");
    } else {
        id = allocator_.allocate();
    }
    Item* item = new Item;
    item->setAllCfg(req);
    item->id = id;
    items_.push_back(item);
    store_.set(id, item->getCfg());
    notifyChange(id, req);

    tn::message undo;
    undo.insert(tn::u32_id(tn::F_COMMAND), uint32_t(tn::CMD_REMOVE_OBJ));
    undo.insert(tn::u32_id(tn::F_OBJ_ID), id);
    sendUndo(req, undo, "new snmp community created");
    tn::message r;
    r.insert(tn::u32_id(tn::F_OBJ_ID), id);
    return r;
}

tn::message CommunityKeep::cmdRemoveObj(tn::message const& req, uint32_t id) {
    if (!req.has(tn::u32_id(tn::F_OBJ_ID))) return tn::errorMsg(tn::ERR_NO_OBJECT, "");
    Item* item = byId(id);
    if (!item) return tn::errorMsg(tn::ERR_NO_OBJECT, "");
    tn::message undo = withCommand(item->getCfg(), tn::CMD_ADD_OBJ);
    items_.remove(item);
    store_.remove(id);
    allocator_.free(id);
    delete item;
    notifyChange(id, req);
    sendUndo(req, undo, "snmp community removed");
    return tn::message();
}
