// The statics of IZUArray: the data directory that every file-backed array uses, and the
// clean-up of files left behind by earlier runs.
#include "src/file/data_directory.h"
#include "zu_data_manager/zu_array.h"

void IZUArray::SetDataDirectory(const std::wstring& dir) { zu::SetDataDirectory(dir); }

std::wstring IZUArray::GetDataDirectory() { return zu::DataDirectory(); }

void IZUArray::CleanTmpFiles() { zu::CleanDataFiles(); }
