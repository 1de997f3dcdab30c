// BER decoder and encoder of SNMP messages (definite lengths only).
//
// Both streams are forgiving: nothing throws. A failure prints one line on
// standard output, prefixed "SNMP InStream: " or "SNMP OutStream: ", and the
// operation returns a failure value or writes nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "asn/oid.h"

struct V3Info;
struct V3ServerInfo;

// The static datagram buffer: the agent receives into it, and addOID uses it
// as scratch. Safe to share because InStream works on its own copy.
enum : unsigned int { C_BUF_SIZE = 65536 };
extern unsigned char c_buf[C_BUF_SIZE];

// Bytes as "xx " groups, a line break after every 16th byte and one at the end.
void hexdump(void const* p, unsigned int len);

// One name/value pair of a notification; the value in text form, converted
// by OutStream::addByType according to the type tag.
struct VariableBinding {
    OID name;
    unsigned int type = 0;
    std::string value;

    VariableBinding() = default;
    VariableBinding(OID const& n, unsigned int t, std::string const& v) : name(n), type(t), value(v) {}
};

class InStream {
public:
    InStream() = default;
    InStream(unsigned char const* bytes, unsigned int length);
    ~InStream();
    InStream(InStream const&) = delete;
    InStream& operator=(InStream const&) = delete;

    // Every getter starts at a tag byte, skips it unchecked, reads the length
    // and leaves the cursor after the element on success. On failure the
    // output argument is untouched and the cursor is unspecified.
    int getType() const;  // tag under the cursor, -1 at or past the end
    int getLen();         // -1 on failure
    unsigned int enterSeq();  // content length, or 0xFFFFFFFF when bad
    void exitSeq();
    int getInt(int* v);
    int get64(unsigned long long* v);
    int getString(std::string* s);
    int getBits(std::vector<unsigned char>* bits);  // leading unused-bits byte included
    int getNull();
    int getOID(OID* oid);
    int getVersion();  // enters the message SEQUENCE on the first call
    void reset();

    // True while the cursor is before both the data end and the end of the
    // innermost entered sequence.
    bool moreInSeq() const;
    uint32_t position() const { return pos; }
    size_t size() const { return data.size(); }

    // SNMPv3 header and security checks (user-based security).
    bool readV3Info(int& v3_err);
    bool decryptAndCheckSignature(int& v3_err, std::vector<unsigned char> const& authKey, int authProto,
                                  std::vector<unsigned char> const& privKey, int privProto,
                                  V3ServerInfo const& server);
    void clearAuthPrivInfo();
    bool decryptAndCheckSignatureLite(std::vector<unsigned char> const& authKey, int authProto,
                                      std::vector<unsigned char> const& privKey, int privProto);

    int32_t securityMode = 0;  // 0 plain, 1 authenticated, 2 authenticated and encrypted
    std::vector<unsigned char> data;  // private copy of the datagram
    std::vector<uint32_t> seqEndp;    // end index of each entered sequence, innermost last
    uint32_t pos = 0;                 // read cursor (index into data)
    int32_t version = -1;
    unsigned char versionRead = 0;
    std::vector<unsigned char> plaintext;  // decrypted scoped PDU before it is swapped into data
    V3Info* v3info = nullptr;              // owned; created when the SNMPv3 header is read

private:
    int elementLen();  // skips the tag and reads the length
};

class OutStream {
public:
    OutStream();
    OutStream(OutStream const&) = default;
    OutStream& operator=(OutStream const&) = default;

    // Opening a sequence writes a one-byte placeholder length; closing it
    // fixes the length, inserting one or two length bytes when needed.
    void startSeq(unsigned int tag);
    void endSeq();

    void addLen(unsigned int len);
    void add(int v, unsigned int tag);
    void add(unsigned int v, unsigned int tag);
    void add(unsigned long long v, unsigned int tag);
    void add(unsigned long v, unsigned int tag) { add((unsigned long long)v, tag); }
    void add(std::string const& s, unsigned int tag);
    void add(unsigned char const* p, unsigned int len, unsigned int tag);
    void addNull(unsigned int tag);
    void addOID(OID const& oid, unsigned int tag);
    void addBits(unsigned char const* p, unsigned int len, unsigned int tag);
    void addByType(std::string const& text, unsigned int tag);
    void addVarBind(VariableBinding const& vb);
    // The first call reserves a one-byte INTEGER; every call stores the low
    // 8 bits of its argument there.
    void addErrorStatus(unsigned int status);
    void addErrorIndex(unsigned int index);

    size_t size() const { return data.size(); }

    // SNMPv3 header, privacy and signature (user-based security).
    void writeV3Info(V3Info const* info);
    void cryptPacket(V3Info const* info, std::vector<unsigned char> const& privKey, int privProto);
    void signPacket(V3Info const* info, std::vector<unsigned char> const& authKey, int authProto);

    int32_t securityMode = 0;  // 0 plain, 1 sign, 2 sign and encrypt
    std::vector<unsigned char> data;
    uint32_t authParamsPos = 0;   // index of the 12-byte msgAuthenticationParameters value, 0 when none
    uint32_t scopedPduStart = 0;  // index where the scoped PDU begins, 0 when none
    std::vector<uint32_t> seqStack;  // first content index of each open sequence
    uint32_t errorStatusPos = 0;
    uint32_t errorIndexPos = 0;

private:
    void addReserved(uint32_t& pos, unsigned int value);
    void addBytes(unsigned char const* p, size_t n, unsigned int tag);
};
