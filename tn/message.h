// The platform bus message: a record of typed fields keyed by 32-bit ids.
//
// A field key is (type << 24) | id, where id is 24 bits. The type byte:
//   0x00 bool            0x08 u32 (also be32: an IPv4 address, see below)
//   0x10 u64             0x20 string           0x28 message (nested)
//   0x30 raw bytes       0x88 u32 array        0xA0 string array
//   0xA8 message array
// The typed id wrappers accept an id with or without its type byte, so
// u32_id(0xfe0003) and u32_id(0x08fe0003) name the same field.
//
// be32 fields hold IPv4 addresses. They share the u32 type byte; the value
// is the address as a number whose most significant byte is the first
// octet (10.0.0.1 is 0x0A000001), on every host byte order.
//
// Binary encoding (socket and store), all integers big-endian:
//   u32 field count, then per field: u32 key, payload
//   bool: 1 byte 0/1; u32: 4; u64: 8; string/raw/message: u32 length + bytes;
//   u32 array: u32 n + 4n; string array and message array: u32 n + n * (u32 length + bytes)
// Fields are kept and encoded in ascending key order; a key appears once.
// Decoding rejects truncated input, trailing bytes, lengths past the end,
// duplicate or unordered keys, unknown types, more than kMaxSize bytes and
// nesting deeper than kMaxDepth.
//
// JSON form: an object whose member names are the keys as "0x%08x" and
// whose values are: bool, number (u32/u64), string (string), hex string
// (raw, e.g. "0211aa"), array of numbers / strings / objects, object
// (nested message). A string that is not valid UTF-8 is written as
// {"hex": "..."} so that it survives the trip. Input also accepts "type:id"
// names (bool, u32, be32, u64, str, raw, msg, u32[], be32[], str[], msg[];
// id in decimal or 0x hex) and dotted-quad strings for be32 values, which
// makes fixture files readable.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <variant>
#include <vector>

namespace tn {

enum field_type : uint8_t {
    T_BOOL = 0x00,
    T_U32 = 0x08,
    T_U64 = 0x10,
    T_STRING = 0x20,
    T_MESSAGE = 0x28,
    T_RAW = 0x30,
    T_U32_ARRAY = 0x88,
    T_STRING_ARRAY = 0xA0,
    T_MESSAGE_ARRAY = 0xA8,
};

constexpr uint32_t make_key(uint8_t type, uint32_t id) { return (uint32_t(type) << 24) | (id & 0xFFFFFFu); }

#define TN_TYPED_ID(name, type)                                                  \
    struct name {                                                                \
        uint32_t key;                                                            \
        constexpr explicit name(uint32_t id) : key(make_key(type, id)) {}        \
    }
TN_TYPED_ID(bool_id, T_BOOL);
TN_TYPED_ID(u32_id, T_U32);
TN_TYPED_ID(be32_id, T_U32);
TN_TYPED_ID(u64_id, T_U64);
TN_TYPED_ID(string_id, T_STRING);
TN_TYPED_ID(message_id, T_MESSAGE);
TN_TYPED_ID(raw_id, T_RAW);
TN_TYPED_ID(u32_array_id, T_U32_ARRAY);
TN_TYPED_ID(be32_array_id, T_U32_ARRAY);
TN_TYPED_ID(string_array_id, T_STRING_ARRAY);
TN_TYPED_ID(message_array_id, T_MESSAGE_ARRAY);
#undef TN_TYPED_ID

typedef std::vector<uint32_t> u32_vector;

class message;

// The serialised form of one message, as held in message arrays: cheap to
// store and copy, decoded when read.
struct flat_message {
    std::vector<uint8_t> bytes;
    flat_message() = default;
    explicit flat_message(const message& m);
    message unflatten() const;  // an undecodable element gives an empty message
};

class message {
public:
    static constexpr size_t kMaxSize = 16u << 20;
    static constexpr int kMaxDepth = 16;

    message() = default;
    explicit message(const flat_message& f);

    // Insert replaces any field with the same key.
    void insert(bool_id id, bool v);
    void insert(u32_id id, uint32_t v);
    void insert(be32_id id, uint32_t v);
    void insert(u64_id id, uint64_t v);
    void insert(string_id id, const std::string& v);
    void insert(string_id id, const char* v) { insert(id, std::string(v)); }
    void insert(message_id id, const message& v);
    void insert(raw_id id, const void* data, size_t len);
    void insert(raw_id id, const std::vector<uint8_t>& v) { insert(id, v.data(), v.size()); }
    void insert_u32_array(u32_array_id id, const u32_vector& v);
    void insert(u32_array_id id, const u32_vector& v) { insert_u32_array(id, v); }
    void insert(be32_array_id id, const u32_vector& v) { insert_u32_array(u32_array_id(id.key), v); }
    void insert(string_array_id id, const std::vector<std::string>& v);
    void insert(message_array_id id, const std::vector<message>& v);
    void insert(message_array_id id, const std::vector<flat_message>& v);
    // Appends one element to a message array (created when absent).
    void append(message_array_id id, const message& v);

    // Getters return the default when the field is absent.
    bool get(bool_id id, bool def = false) const;
    uint32_t get(u32_id id, uint32_t def = 0) const;
    uint32_t get(be32_id id, uint32_t def = 0) const;
    uint64_t get(u64_id id, uint64_t def = 0) const;
    std::string get(string_id id, const std::string& def = std::string()) const;
    message get(message_id id) const;
    std::vector<uint8_t> get(raw_id id) const;
    u32_vector get(u32_array_id id) const;
    u32_vector get(be32_array_id id) const;
    std::vector<std::string> get(string_array_id id) const;
    std::vector<message> get(message_array_id id) const;
    const std::vector<flat_message>* get_flat(message_array_id id) const;  // null when absent

    // Pointer access without copying; null when absent.
    const std::string* get_string_ptr(string_id id) const;
    const std::vector<uint8_t>* get_raw_ptr(raw_id id) const;
    const u32_vector* get_u32_array_ptr(u32_array_id id) const;

    bool has(bool_id id) const { return has_key(id.key); }
    bool has(u32_id id) const { return has_key(id.key); }
    bool has(be32_id id) const { return has_key(id.key); }
    bool has(u64_id id) const { return has_key(id.key); }
    bool has(string_id id) const { return has_key(id.key); }
    bool has(message_id id) const { return has_key(id.key); }
    bool has(raw_id id) const { return has_key(id.key); }
    bool has(u32_array_id id) const { return has_key(id.key); }
    bool has(be32_array_id id) const { return has_key(id.key); }
    bool has(string_array_id id) const { return has_key(id.key); }
    bool has(message_array_id id) const { return has_key(id.key); }
    bool has_key(uint32_t key) const;
    void remove_key(uint32_t key);
    std::vector<uint32_t> keys() const;  // ascending

    size_t size() const { return fields_.size(); }
    bool empty() const { return fields_.empty(); }
    void clear() { fields_.clear(); }

    // Copies every field of other into this one (other's values win).
    void merge(const message& other);

    std::vector<uint8_t> encode() const;
    void encode_to(std::vector<uint8_t>& out) const;
    // False (with a one-line reason in err, if given) on malformed input;
    // out is then left empty.
    static bool decode(const uint8_t* data, size_t len, message& out, std::string* err = nullptr);

    std::string to_json(int indent = -1) const;
    static bool from_json(const std::string& text, message& out, std::string* err = nullptr);

    // A readable multi-line dump, each line starting with prefix.
    void dump2(std::ostream& os, const std::string& prefix = std::string()) const;
    std::string dump2(const std::string& prefix = std::string()) const;

    bool operator==(const message& o) const;
    bool operator!=(const message& o) const { return !(*this == o); }

    // bool/u32/u64 in the number; string; raw bytes and nested messages
    // (encoded) in the byte vector; arrays in their vectors.
    typedef std::variant<uint64_t, std::string, std::vector<uint8_t>, u32_vector, std::vector<std::string>,
                         std::vector<flat_message>>
        value;
    struct field {
        uint32_t key;
        value v;
    };

private:
    std::vector<field> fields_;
    friend struct message_codec;
};

// Well-known field ids and commands of the bus.
enum : uint32_t {
    F_COMMAND = 0xFF0007,     // u32
    F_PATH = 0x88FF0001,      // u32 array: destination handler path
    F_SENDER = 0x88FF0002,    // u32 array: sender's path
    F_SEQ = 0xFF0008,         // u32: request number, set when a reply is expected
    F_REPLY_TO = 0xFF0009,    // u32: the request number a reply answers
    F_ERROR_CODE = 0xFF0010,  // u32: present in error replies
    F_ERROR_TEXT = 0xFF0011,  // string: the error's text
    F_RIGHTS = 0xFF0012,      // u32: sender's rights, checked against policies
    F_OBJ_ID = 0xFE0001,      // u32: object id
    F_OBJ_NAME = 0xFE0010,    // string: object name
    F_OBJECTS = 0xA8FE0002,   // message array: the objects of a list reply
    F_START = 0xFE0003,       // u32: list start / continuation id
    F_COUNT = 0xFE0011,       // u32: how many objects a list request wants
    F_SELECTOR = 0xFE000C,    // u32: list selector
    F_TOTAL = 0xFE0014,       // u32: count reply
    F_NOT_EXIST = 0xFE0013,   // u32 = 1 for an object that does not exist
    F_UNDO_TEXT = 0xFF0013,   // string: description of an undo record
    F_UNDO = 0xFF0014,        // message: the undo record
    F_CHANGE = 0xFF0015,      // message: the change notified
    F_SUB_CMD = 0xFF0016,     // u32: command a subscription is for
    F_SUB_FILTER = 0xFF0017,  // message: filter of a subscription
    F_PREFIXES = 0xA8FF0018,  // message array of {F_PATH} a peer announces it serves

    CMD_GET = 0xFE000D,
    CMD_SET = 0xFE000E,
    CMD_GET_OBJ = 0xFE0002,
    CMD_SET_OBJ = 0xFE0003,
    CMD_GET_ALL = 0xFE0004,
    CMD_ADD_OBJ = 0xFE0005,
    CMD_REMOVE_OBJ = 0xFE0006,
    CMD_MOVE_OBJ = 0xFE0007,
    CMD_RESET = 0xFE0008,
    CMD_SHUTDOWN = 0xFE0009,
    CMD_GET_POLICIES = 0xFE000A,
    CMD_COUNT = 0xFE0015,
    CMD_SUBSCRIBE = 0xFF0101,    // to a handler path: deliver its events of F_SUB_CMD to the sender
    CMD_UNSUBSCRIBE = 0xFF0102,
    CMD_ANNOUNCE = 0xFF0103,     // a peer announces the path prefixes it serves (F_PREFIXES)
    CMD_NOTIFY = 0xFF0104,       // notifyChange delivered to watchers
    CMD_UNDO = 0xFF0105,         // sendUndo delivered to watchers
    CMD_WATCH = 0xFF0106,        // a peer asks for notifications and undo records

    ERR_NO_OBJECT = 0xFE0004,
    ERR_MISSING_FIELD = 0xFE0005,
    ERR_REFUSED = 0xFE0006,
    ERR_UNKNOWN_START = 0xFE000B,
    ERR_TIMEOUT = 0xFE0020,
    ERR_DISCONNECTED = 0xFE0021,
    ERR_MALFORMED = 0xFE0022,
    ERR_NOT_ALLOWED = 0xFE0023,
};

message errorMsg(uint32_t code, const std::string& text);
bool isError(const message& m);
uint32_t getErrorCode(const message& m);
std::string getError(const message& m);

}  // namespace tn
