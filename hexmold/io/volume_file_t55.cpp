/// @file  io/volume_file_t55.cpp
/// @brief The volume file reader and writer for `Traits<5,5,1>`.
#include <hexmold/io/volume_file.h>

#if HEXMOLD_HAVE_OPENVDB
#include <hexmold/io/detail/volume_file_impl.h>

HEXMOLD_IO_VOLUME_FILE_INSTANCES(, Traits55)

#endif
