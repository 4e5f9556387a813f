// placeholder: filled in by the unit owner
#include "vesk/datastore.h"
