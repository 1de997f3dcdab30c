#include "agent/community_keep.h"

CommunityKeep* communityKeep = nullptr;

CommunityKeep::CommunityKeep(std::string const& storePath) : store_(storePath, 5), allocator_(0, 0xFFFFFFFEu) {}

// The items outlive the keep: the request path may still hold one.
CommunityKeep::~CommunityKeep() { items_.clear(); }

CommunityKeep::Items::iterator CommunityKeep::find(std::string const& name) {
    for (Items::iterator it = items_.begin(); it != items_.end(); ++it) {
        if ((*it)->name == name)
            return it;
    }
    return items_.end();
}
