#pragma once
// The whole public API of the vesk datastore library: records and
// vocabulary, the extension contract and controller, configuration, the
// query front end and snapshots, plus the generic utilities and error log.

#include "vesk/datastore/controller.h"
#include "vesk/datastore/extension.h"
#include "vesk/datastore/interface.h"
#include "vesk/datastore/parameter_pack.h"
#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/queries.h"
#include "vesk/datastore/records.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/fs.h"
#include "vesk/log.h"
#include "vesk/str.h"
#include "vesk/xml.h"
