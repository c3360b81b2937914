# Fails when an object calls a file, directory, watch or wall-clock function of the system itself.
#   WHAT=engine: the iCalendar engine works on text it is given; the environment is off limits too.
#   WHAT=store:  the directory store reaches files and the clock only through its environment
#                (VdirEnv.cpp.o and VdirFiles.cpp.o, listed in EXCEPT, are that environment).
# cmake -DNM=nm -DWHAT=engine|store -DOBJECTS="a.o;b.o" [-DEXCEPT="x.o;y.o"] -P TouchesNoFilesDirectly.cmake
cmake_minimum_required(VERSION 3.25)
set(forbidden open open64 openat openat64 creat fstat fstat64 fstatat fstatat64 stat stat64 lstat lstat64
  __xstat __fxstat __fxstatat __lxstat mmap mmap64 read pread write rename renameat unlink unlinkat
  readlink readlinkat fopen fopen64 opendir fdopendir readdir readdir64 access faccessat poll pipe pipe2
  fsync inotify_init inotify_init1 inotify_add_watch clock_gettime time gettimeofday)
if(WHAT STREQUAL "engine")
  list(APPEND forbidden getenv secure_getenv)
  # Any use of std::filesystem, paths included.
  set(forbiddenPattern "basic_ifstream|basic_ofstream|basic_filebuf|10filesystem")
elseif(WHAT STREQUAL "store")
  # Paths may be taken apart and joined; nothing that looks at the disk.
  set(forbiddenPattern "basic_ifstream|basic_ofstream|basic_filebuf|10filesystem.*(absolute|canonical|directory_iterator|create_director|status|exists|remove|rename|current_path|is_directory|file_size|last_write_time|permissions)")
else()
  message(FATAL_ERROR "WHAT must be engine or store")
endif()
list(LENGTH OBJECTS count)
if(count LESS 1)
  message(FATAL_ERROR "no objects were given")
endif()
set(found "")
set(checked 0)
foreach(object IN LISTS OBJECTS)
  get_filename_component(file ${object} NAME)
  if(file IN_LIST EXCEPT)
    continue()
  endif()
  math(EXPR checked "${checked} + 1")
  execute_process(COMMAND ${NM} -u ${object} OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "cannot list the symbols of ${object}")
  endif()
  string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^ *U +" "" name "${line}")
    string(REGEX REPLACE "@.*" "" name "${name}")
    if(name IN_LIST forbidden OR name MATCHES "${forbiddenPattern}")
      list(APPEND found "${file}: ${name}")
    endif()
  endforeach()
endforeach()
if(found)
  list(JOIN found "\n  " text)
  message(FATAL_ERROR "the ${WHAT} reaches the system directly:\n  ${text}")
endif()
message(STATUS "${checked} ${WHAT} objects, none reaching the file system or the clock directly")
