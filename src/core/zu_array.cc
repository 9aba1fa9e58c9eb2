#include "zu_data_manager/zu_array.h"

IZUArray::~IZUArray() {}
