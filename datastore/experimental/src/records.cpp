// Records, vocabulary and the extension contract's exported objects.
#include "vesk/datastore/records.h"

#include "vesk/datastore/extension.h"
#include "vesk/datastore/vocabulary.h"

namespace vesk::datastore {

// Defined out of line so that the vtable and type information of the
// contract exist once, in this library.
DataStoreExtension::~DataStoreExtension() = default;

const int32_t DataStoreExtension::OPERATION_SUCCESSFULL = 0;
const int32_t DataStoreExtension::OPERATION_UNSUCCESSFULL = 1;
const int32_t DataStoreExtension::UNSUPPORTED_OPERATION = 512;

}  // namespace vesk::datastore
