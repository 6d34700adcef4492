# Makes the Debian package of a build tree (cpack -G DEB), unpacks it into a
# scratch root and runs the packaged tool from there: it finds the packaged
# library through its run path and reads and writes a picture.
# Usage: cmake -DBUILD_DIR=... -DWORK_DIR=... -P package.cmake
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
execute_process(COMMAND cpack -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${WORK_DIR}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
file(GLOB deb ${WORK_DIR}/*.deb)
if(rc OR NOT deb)
  message(FATAL_ERROR "cpack -G DEB failed: ${out}${err}")
endif()
execute_process(COMMAND dpkg-deb -x ${deb} ${WORK_DIR}/root RESULT_VARIABLE rc)
execute_process(COMMAND dpkg-deb -c ${deb} OUTPUT_VARIABLE contents)
foreach(part usr/bin/ombrix usr/include/ombrix.h libOmbrix.Native.so.1 OmbrixConfig.cmake ombrix.pc)
  if(NOT contents MATCHES "${part}")
    message(FATAL_ERROR "the package lacks ${part}")
  endif()
endforeach()
set(tool ${WORK_DIR}/root/usr/bin/ombrix)
file(WRITE ${WORK_DIR}/in.pgm "P5\n2 2\n255\n")
file(APPEND ${WORK_DIR}/in.pgm "abcd")
execute_process(COMMAND ${tool} convert ${WORK_DIR}/in.pgm ${WORK_DIR}/out.png RESULT_VARIABLE rc ERROR_VARIABLE err)
execute_process(COMMAND ${tool} identify ${WORK_DIR}/out.png RESULT_VARIABLE rc2 OUTPUT_VARIABLE out ERROR_VARIABLE err2)
if(rc OR rc2 OR NOT out MATCHES "grey, 8 bits")
  message(FATAL_ERROR "the packaged ombrix does not run: ${err}${err2}${out}")
endif()
message(STATUS "${deb}: ${out}")
