// The process-wide data directory and the names of the library's temporary files.
//
// Every file-backed segment creates its file as <data directory> + "//" + "{GUID}" + ".KMB",
// creating the directory (with its parents) just before. The directory is one global string,
// empty by default; an empty directory makes file creation fail rather than writing at the
// file-system root.
// Thread-safety: set the directory once, before creating file-backed arrays.
#ifndef ZU_FILE_DATA_DIRECTORY_H_
#define ZU_FILE_DATA_DIRECTORY_H_

#include <string>

namespace zu {

extern const wchar_t kDataFileExtension[];   // L".KMB"
extern const wchar_t kLegacyTmpExtension[];  // L".kmt", also removed by CleanTmpFiles

// The directory as last set (a copy); empty until a host sets one.
std::wstring DataDirectory();
// Replaces the directory, used unchanged (no separator added, nothing checked).
void SetDataDirectory(const std::wstring& dir);
// A fresh data-file path in the data directory; empty when no directory is set.
std::wstring NewDataFilePath();
// True when `path` names a file this library could have made: its last component is
// "{GUID}.KMB" (any case for the extension).
bool IsDataFileName(const std::wstring& path);
// Deletes the data files (*.KMB and *.kmt, top level only) of the directory that no live
// array of any process holds open.
void CleanDataFiles();

}  // namespace zu

#endif  // ZU_FILE_DATA_DIRECTORY_H_
