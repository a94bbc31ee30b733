# Installs the build into a prefix, then builds the consumer against it with CMake and with pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(PREFIX ${WORK_DIR}/prefix)
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}")
  endif()
endfunction()
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/consumer -B ${WORK_DIR}/cmake-build -DCMAKE_PREFIX_PATH=${PREFIX})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
file(GLOB libdirs ${PREFIX}/lib*)
set(ENV{LD_LIBRARY_PATH} "${PREFIX}/lib:${PREFIX}/lib64:${PREFIX}/lib/x86_64-linux-gnu")
run(${WORK_DIR}/cmake-build/consumer)
set(ENV{PKG_CONFIG_PATH} "${PREFIX}/lib/pkgconfig:${PREFIX}/lib64/pkgconfig:${PREFIX}/lib/x86_64-linux-gnu/pkgconfig")
execute_process(COMMAND pkg-config --cflags --libs lumoimagefilter OUTPUT_VARIABLE flags
  OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config does not find lumoimagefilter")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 ${SOURCE_DIR}/tests/consumer/main.cpp ${flags} -o ${WORK_DIR}/pkgconfig-consumer)
run(${WORK_DIR}/pkgconfig-consumer)

# The installed element loads from the prefix's plugin folder and finds the library through its rpath.
file(GLOB_RECURSE plugin ${PREFIX}/*/gstreamer-1.0/libgstlumo.so)
if(plugin)
  get_filename_component(plugin_dir ${plugin} DIRECTORY)
  run(${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH GST_PLUGIN_PATH=${plugin_dir}
      GST_REGISTRY_1_0=${WORK_DIR}/registry.bin gst-inspect-1.0 lumobeautify OUTPUT_QUIET)
endif()

# The installed Python package imports from the prefix and finds the library through its rpath.
file(GLOB_RECURSE python_module ${PREFIX}/_lumo*.so)
if(python_module)
  get_filename_component(package_dir ${python_module} DIRECTORY)
  get_filename_component(site_dir ${package_dir} DIRECTORY)
  run(${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH PYTHONPATH=${site_dir} ${PYTHON}
      -c "import lumo, numpy\nprint(lumo.Beautifier(engine='cpu').process(numpy.zeros((4, 4, 3), numpy.uint8)).shape)")
endif()
