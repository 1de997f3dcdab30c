// Registers two objects under the enterprise subtree: a constant greeting
// and a counter of how often it has been read, kept in a record of its own.
#include "mib/leaf.h"
#include "mib/packer.h"

namespace {

struct Greeting : Data {
    int reads = 0;
};

class GreetingProvider : public DataProvider {
public:
    Data* get() override {
        ++record.reads;
        return &record;
    }
    unsigned int set(Data*) override { return 0; }

private:
    Greeting record;
};

}  // namespace

extern "C" void autorun() {
    addScalarConstStringLeaf(OID("1.3.6.1.4.1.48291.1.99.1"), "hello from a plug-in", 4);
    addScalarLeaf(OID("1.3.6.1.4.1.48291.1.99.2"),
                  new DataNumPacker(static_cast<int Data::*>(&Greeting::reads), 0x41), new GreetingProvider);
}
