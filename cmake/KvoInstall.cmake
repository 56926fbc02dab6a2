# What `cmake --install` puts where, and the check that every installed header compiles alone.

file(GLOB host_includes CONFIGURE_DEPENDS LIST_DIRECTORIES true ${PROJECT_SOURCE_DIR}/host/*/include)
list(TRANSFORM host_includes APPEND / OUTPUT_VARIABLE host_contents)
# Headers of toolkits that this build leaves out stay out of the installation.
foreach(toolkit Widgets Quick Vtk)
  if(NOT TARGET Kvo${toolkit})
    string(TOLOWER ${toolkit} folder)
    list(REMOVE_ITEM host_contents ${PROJECT_SOURCE_DIR}/host/${folder}/include/)
  endif()
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ ${host_contents}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kvo
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/pipelines
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kvo
  FILES_MATCHING PATTERN "*.json" PATTERN "*.frag" PATTERN "*.vert" PATTERN "*.geom" PATTERN "*.png")
install(FILES LICENSE README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
# Programs to begin with: their sources.
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} PATTERN CMakeLists.txt EXCLUDE)
install(DIRECTORY python/examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/python PATTERN __pycache__ EXCLUDE)

# How far the library folder lies below the prefix: programs find the libraries, and the pkg-config files the prefix,
# by relative paths, so that an installed tree can be moved.
file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH KVO_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KVO_PC_TO_PREFIX ${KVO_PC_TO_PREFIX})

# kvoview is not part of every build, nor of what a demo builds.
foreach(tool kvorender kvoview)
  if(NOT TARGET ${tool})
    continue()
  endif()
  set_target_properties(${tool} PROPERTIES INSTALL_RPATH "\$ORIGIN/${bin_to_lib}")
  install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} OPTIONAL)
endforeach()

# A helper of the libraries, which look for it there.
if(TARGET kvo-import)
  file(RELATIVE_PATH libexec_to_lib ${CMAKE_INSTALL_FULL_LIBEXECDIR}/kvo ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(kvo-import PROPERTIES INSTALL_RPATH "\$ORIGIN/${libexec_to_lib}")
  install(TARGETS kvo-import RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/kvo)
endif()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Kvo)
install(EXPORT KvoTargets NAMESPACE Kvo:: DESTINATION ${package_dir})
foreach(toolkit Widgets Quick Vtk)
  if(TARGET Kvo${toolkit})
    install(EXPORT Kvo${toolkit}Targets NAMESPACE Kvo:: DESTINATION ${package_dir})
  endif()
endforeach()
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/KvoConfig.cmake.in ${PROJECT_BINARY_DIR}/KvoConfig.cmake
  INSTALL_DESTINATION ${package_dir}
  PATH_VARS CMAKE_INSTALL_DATADIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KvoConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KvoConfig.cmake ${PROJECT_BINARY_DIR}/KvoConfigVersion.cmake
  DESTINATION ${package_dir})

# kvo.pc is everything; kvo-passes.pc is what needs no host's side, and each library of that has its own.
function(kvo_pkg_config name description requires libs)
  set(KVO_PC_NAME ${name})
  set(KVO_PC_DESCRIPTION ${description})
  set(KVO_PC_REQUIRES ${requires})
  set(KVO_PC_LIBS ${libs})
  set(KVO_PC_CFLAGS ${ARGN})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/kvo.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
# Who links static libraries links what these need.
if(NOT BUILD_SHARED_LIBS)
  set(passes_need ", epoxy")
  set(images_need ", OpenEXR, zlib")
  set(scene_need ", assimp")
  set(scene_keeps " -Wl,--undefined=kvo_environment_images")
endif()
kvo_pkg_config(kvo-passes "${PROJECT_DESCRIPTION}" "Qt6Core >= 6.4, Qt6Gui >= 6.4${passes_need}"
  "-lKvoRenderPasses -lKvoGL -lKvoCore")
kvo_pkg_config(kvo-pipeline "Chains of Kvo render passes, from code and from files" kvo-passes -lKvoPipeline)
kvo_pkg_config(kvo-images "Pictures and values of Kvo's textures" "kvo-passes${images_need}" -lKvoImages)
kvo_pkg_config(kvo-scene "Models and cameras for Kvo render passes" "kvo-pipeline, kvo-images${scene_need}"
  "${scene_keeps} -lKvoScene")
kvo_pkg_config(kvo-headless "OpenGL without a window for Kvo render passes" kvo-images -lKvoHeadless)
if(TARGET KvoWidgets)
  kvo_pkg_config(kvo-widgets "A viewport for Qt's widgets" "kvo-scene, Qt6OpenGLWidgets >= 6.4" -lKvoWidgets)
endif()
if(TARGET KvoQuick)
  kvo_pkg_config(kvo-quick "A viewport for QML" "kvo-scene, Qt6Quick >= 6.4" -lKvoQuick)
endif()
if(TARGET KvoVtk)
  # VTK has no pkg-config files.
  get_target_property(vtk_includes VTK::CommonCore INTERFACE_INCLUDE_DIRECTORIES)
  list(TRANSFORM vtk_includes PREPEND " -I")
  list(JOIN vtk_includes "" vtk_includes)
  set(vtk_libraries "-lKvoVtk")
  foreach(library RenderingOpenGL2 RenderingCore CommonExecutionModel CommonCore)
    string(APPEND vtk_libraries " -lvtk${library}-${VTK_MAJOR_VERSION}.${VTK_MINOR_VERSION}")
  endforeach()
  kvo_pkg_config(kvo-vtk "Kvo render passes in VTK" kvo-pipeline ${vtk_libraries} ${vtk_includes})
endif()
kvo_pkg_config(kvo "${PROJECT_DESCRIPTION}" "kvo-pipeline, kvo-images, kvo-scene, kvo-headless" "")

# One source per public header, which includes nothing else. A GL header that came along would show in
# GL_VERSION_1_1, which all of them define. Those for toolkits bring what their toolkit's headers do, and are the first
# that their sources include.
if(KVO_BUILD_TESTS)
  file(GLOB_RECURSE public_headers CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/include/*.h ${PROJECT_SOURCE_DIR}/host/*/include/*.h)
  list(FILTER public_headers EXCLUDE REGEX "/host/(widgets|quick|vtk)/")
  set(check_sources)
  foreach(header IN LISTS public_headers)
    string(REGEX REPLACE "^.*/include/" "" name ${header})
    string(REPLACE "/" "_" file ${name})
    set(source ${PROJECT_BINARY_DIR}/header_check/${file}.cpp)
    file(CONFIGURE OUTPUT ${source} @ONLY CONTENT "#include \"@name@\"
#ifdef GL_VERSION_1_1
#error \"@name@ includes a GL header\"
#endif
")
    list(APPEND check_sources ${source})
  endforeach()
  add_library(kvo_header_check OBJECT ${check_sources})
  set_target_properties(kvo_header_check PROPERTIES AUTOMOC OFF)
  target_include_directories(kvo_header_check PRIVATE ${PROJECT_SOURCE_DIR}/include ${host_includes})
  target_link_libraries(kvo_header_check PRIVATE Qt6::Core Qt6::Gui kvo_options)
endif()
