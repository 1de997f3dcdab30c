// Temporary: replaced by the user-based security implementation. Until it
// lands, every SNMPv3 message is refused at the header (no reply), and the
// writing side does nothing.
#include "asn/stream.h"
#include "request/context.h"
#include "request/usm.h"

uint32_t Context::v3counters[Context::V3_COUNTERS];
V3ServerInfo const* agentEngine = nullptr;

bool InStream::readV3Info(int&) { return false; }
bool InStream::decryptAndCheckSignature(int&, std::vector<unsigned char> const&, int,
                                        std::vector<unsigned char> const&, int, V3ServerInfo const&) {
    return false;
}
void InStream::clearAuthPrivInfo() {}
bool InStream::decryptAndCheckSignatureLite(std::vector<unsigned char> const&, int,
                                            std::vector<unsigned char> const&, int) {
    return false;
}
void OutStream::writeV3Info(V3Info const*) {}
void OutStream::cryptPacket(V3Info const*, std::vector<unsigned char> const&, int) { endSeq(); }
void OutStream::signPacket(V3Info const*, std::vector<unsigned char> const&, int) {}

unsigned int snmpV3(Context&) { return 0; }
