// Temporary: the community store's bus commands, loading and keys are
// replaced by the complete community store implementation. Until then every
// command is refused and items only come from code that fills the list.
#include "agent/community_keep.h"

tn::message CommunityKeep::cmdGetObj(tn::message const&, uint32_t) { return tn::errorMsg(tn::ERR_NO_OBJECT, ""); }
tn::message CommunityKeep::cmdSetObj(tn::message const&, uint32_t) { return tn::errorMsg(tn::ERR_NO_OBJECT, ""); }
tn::message CommunityKeep::cmdGetAll(tn::message const&, uint32_t, uint32_t) {
    return tn::errorMsg(tn::ERR_UNKNOWN_START, "");
}
tn::message CommunityKeep::cmdAddObj(tn::message const&) { return tn::errorMsg(tn::ERR_REFUSED, "not available"); }
tn::message CommunityKeep::cmdRemoveObj(tn::message const&, uint32_t) {
    return tn::errorMsg(tn::ERR_NO_OBJECT, "");
}
tn::message CommunityKeep::getObject(uint32_t id) {
    tn::message m;
    m.insert(tn::u32_id(tn::F_OBJ_ID), id);
    m.insert(tn::u32_id(tn::F_NOT_EXIST), 1u);
    return m;
}
void CommunityKeep::init() {}
