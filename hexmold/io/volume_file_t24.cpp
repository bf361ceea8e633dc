/// @file  io/volume_file_t24.cpp
/// @brief The volume file reader and writer for `Traits<2,4,1>`.
#include <hexmold/io/volume_file.h>

#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/io/detail/volume_file_impl.h>

HEXMOLD_IO_VOLUME_FILE_INSTANCES(, Traits24)

#endif
