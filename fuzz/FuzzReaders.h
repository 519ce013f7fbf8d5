// Reads all that a client can ask of tables and services, and holds the answers to their promises.
#pragma once

#include "services/ServiceList.h"
#include "services/objects/TableInterfaces.h"

namespace tessel {

// table: a current one of any type. Its lists hold no more entries than bytesFed.
void ReadTable(IDvbTable* table, size_t bytesFed);

// Leaves the list as it is.
void ReadServices(CDvbServices& services);
// Completes the list if that can be done, and reads it again.
void FinishServices(CDvbServices& services);

}  // namespace tessel
