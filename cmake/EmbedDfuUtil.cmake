# Copies the system's dfu-util and makes it load the libusb that lies beside it (RUNPATH
# $ORIGIN), then proves it: the build fails if readelf does not show that RUNPATH.
# Inputs: SOURCE, DESTINATION, PATCHELF, READELF.
file(COPY_FILE "${SOURCE}" "${DESTINATION}")
execute_process(COMMAND "${PATCHELF}" --set-rpath "\$ORIGIN" "${DESTINATION}"
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "patchelf failed on ${DESTINATION}")
endif()
execute_process(COMMAND "${READELF}" -d "${DESTINATION}" OUTPUT_VARIABLE dynamic RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT dynamic MATCHES "\\(RUNPATH\\)[^\n]*\\[\\\$ORIGIN\\]")
  message(FATAL_ERROR "${DESTINATION} does not carry RUNPATH $ORIGIN:\n${dynamic}")
endif()
