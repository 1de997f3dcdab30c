#include "mib/data.h"

Data::~Data() {}
void Data::reverseBuild(tn::message&) {}
DataProvider::~DataProvider() {}
bool TableProvider::getCountCMD(unsigned int&) { return false; }
TableProvider::~TableProvider() {}
TableProviderClient::~TableProviderClient() {}
Table::~Table() {}
