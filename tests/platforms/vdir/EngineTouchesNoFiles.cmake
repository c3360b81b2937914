# Fails when an object of the iCalendar engine calls a file, directory, watch, wall-clock or environment
# function of the system: the engine works on text it is given, and the store does the rest.
# cmake -DNM=nm -DOBJECTS="a.o;b.o" -P EngineTouchesNoFiles.cmake
cmake_minimum_required(VERSION 3.25)
set(forbidden open open64 openat openat64 creat fstat fstat64 fstatat fstatat64 stat stat64 lstat lstat64
  __xstat __fxstat __fxstatat __lxstat mmap mmap64 read pread write rename renameat unlink unlinkat
  readlink readlinkat getenv secure_getenv fopen fopen64 opendir fdopendir readdir readdir64
  inotify_init inotify_init1 inotify_add_watch clock_gettime time gettimeofday)
list(LENGTH OBJECTS count)
if(count LESS 1)
  message(FATAL_ERROR "no engine objects were given")
endif()
set(found "")
foreach(object IN LISTS OBJECTS)
  execute_process(COMMAND ${NM} -u ${object} OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "cannot list the symbols of ${object}")
  endif()
  string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^ *U +" "" name "${line}")
    string(REGEX REPLACE "@.*" "" name "${name}")
    if(name IN_LIST forbidden OR name MATCHES "basic_ifstream|basic_ofstream|basic_filebuf|10filesystem")
      get_filename_component(file ${object} NAME)
      list(APPEND found "${file}: ${name}")
    endif()
  endforeach()
endforeach()
if(found)
  list(JOIN found "\n  " text)
  message(FATAL_ERROR "the iCalendar engine reaches the system directly:\n  ${text}")
endif()
message(STATUS "${count} engine objects, none reaching the file system, the wall clock or the environment")
