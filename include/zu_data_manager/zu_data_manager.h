// Umbrella header: everything a host needs to use the library.
#ifndef ZU_DATA_MANAGER_ZU_DATA_MANAGER_H_
#define ZU_DATA_MANAGER_ZU_DATA_MANAGER_H_

#include "zu_data_manager/array_factory.h"
#include "zu_data_manager/direct_read.h"
#include "zu_data_manager/element_types.h"
#include "zu_data_manager/iterators.h"
#include "zu_data_manager/values.h"
#include "zu_data_manager/zu_array.h"

#endif  // ZU_DATA_MANAGER_ZU_DATA_MANAGER_H_
