// The communities and SNMPv3 users, a bus handler persisted in its own store.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "tn/allocator.h"
#include "tn/handler.h"
#include "tn/store.h"

namespace snmp {
enum : uint32_t { ID_COMMUNITIES = 1 };
}

// Field ids of a community item's bus record and stored object.
enum : uint32_t {
    C_NAME = 0x05,
    C_READ = 0x06,
    C_WRITE = 0x07,
    C_ADDRESS = 0x08,
    C_NETMASK = 0x09,
    C_AUTH_PASSWORD = 0x0B,
    C_PRIV_PASSWORD = 0x0C,
    C_LEVEL = 0x0F,
    C_AUTH_PROTOCOL = 0x14,
    C_PRIV_PROTOCOL = 0x15,
};

class CommunityKeep : public tn::Handler {
public:
    struct Item {
        uint32_t id = 0xFFFFFFFF;
        std::string name;
        uint32_t address = 0;  // IPv4, first octet most significant
        uint32_t netmask = 0;  // 0 accepts every source
        bool readAccess = false;
        bool writeAccess = false;
        uint32_t securityLevel = 0;  // 0 none, 1 auth, 2 auth+priv
        uint32_t authProtocol = 0;   // 0 MD5, 1 SHA-1
        std::vector<unsigned char> authKey;  // the 128-byte HMAC pad block
        uint32_t privProtocol = 0;
        std::vector<unsigned char> privKey;  // localised key: DES key, then pre-IV
        std::string authPassword;
        std::string privPassword;

        tn::message getCfg() const;
        void setCfg(tn::message const& m);
        void setAllCfg(tn::message const& m);
        void regenerateKeys();
        bool accepts(uint32_t source) const { return ((source ^ address) & netmask) == 0; }
    };
    typedef std::list<Item*> Items;

    explicit CommunityKeep(std::string const& storePath = "/tarn/store/snmp-communities");
    ~CommunityKeep() override;

    void init();
    Items::iterator find(std::string const& name);
    Items& items() { return items_; }
    bool storeOk() const { return store_.ok(); }
    std::string const& storeError() const { return store_.error(); }

    tn::message cmdGetObj(tn::message const& req, uint32_t id) override;
    tn::message cmdSetObj(tn::message const& req, uint32_t id) override;
    tn::message cmdGetAll(tn::message const& req, uint32_t start, uint32_t count) override;
    tn::message cmdAddObj(tn::message const& req) override;
    tn::message cmdRemoveObj(tn::message const& req, uint32_t id) override;
    tn::message getObject(uint32_t id) override;

private:
    Item* byId(uint32_t id);
    tn::Store store_;
    tn::Allocator allocator_;
    Items items_;
};

extern CommunityKeep* communityKeep;
