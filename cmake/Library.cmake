# The whole library, shared and static, from the objects of all folders, with its headers and the files by which other
# programs find it. The programs of this tree do not use it: they link the folders that they need.
get_property(folders GLOBAL PROPERTY MAIL_FOLDERS)
get_property(libraries GLOBAL PROPERTY MAIL_LIBRARIES)
list(REMOVE_DUPLICATES libraries)
set(objects)
foreach(folder ${folders})
  list(APPEND objects $<TARGET_OBJECTS:brenthaven_${folder}_objects>)
endforeach()

# The shared library takes shared dependencies: the packaged archives are not made for a shared object.
add_library(brenthaven_shared SHARED ${objects})
target_link_libraries(brenthaven_shared PRIVATE sqlite3 md cryptopp ${DB1_LIBRARY})
set_target_properties(brenthaven_shared PROPERTIES OUTPUT_NAME brenthaven VERSION ${PROJECT_VERSION} SOVERSION 0
                                                   EXPORT_NAME brenthaven)
add_library(brenthaven_static STATIC ${objects})
target_link_libraries(brenthaven_static INTERFACE ${libraries})
set_target_properties(brenthaven_static PROPERTIES OUTPUT_NAME brenthaven EXPORT_NAME brenthaven_static)
foreach(target brenthaven_shared brenthaven_static)
  target_compile_features(${target} INTERFACE cxx_std_20)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  if(BRENTHAVEN_SANITIZE)
    target_link_options(${target} PRIVATE -fsanitize=${BRENTHAVEN_SANITIZE})
  endif()
endforeach()

include(CMakePackageConfigHelpers)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/brenthaven)
install(TARGETS brenthaven_shared brenthaven_static EXPORT brenthavenTargets)
install(EXPORT brenthavenTargets NAMESPACE brenthaven:: DESTINATION ${package})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/brenthavenConfigVersion.cmake COMPATIBILITY SameMinorVersion)
file(WRITE ${CMAKE_BINARY_DIR}/brenthavenConfig.cmake
     "include(\"\${CMAKE_CURRENT_LIST_DIR}/brenthavenTargets.cmake\")\n")
install(FILES ${CMAKE_BINARY_DIR}/brenthavenConfig.cmake ${CMAKE_BINARY_DIR}/brenthavenConfigVersion.cmake
        DESTINATION ${package})
# Seen from the file itself, so that the tree may be installed, or moved, anywhere.
file(RELATIVE_PATH BRENTHAVEN_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/brenthaven.pc.in brenthaven.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/brenthaven.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
foreach(folder ${folders})
  install(DIRECTORY brenthaven/${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/brenthaven FILES_MATCHING PATTERN "*.h")
endforeach()
install(FILES brenthaven/brenthaven.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/brenthaven)
install(FILES man/brenthaven.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES man/Dispatcher.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
