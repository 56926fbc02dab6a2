# What a desktop and a shell want to know of the programs: manual pages and completions, which each program makes of
# its own table of options, and for kvoview what menus, file managers and software centres read.

set(KVO_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING "Where zsh looks for completions, below the prefix")

# kvo_program_texts(kvorender) makes share/man/man1/kvorender.1 and the rest from the program itself.
function(kvo_program_texts target)
  set(folder ${PROJECT_BINARY_DIR}/texts)
  set(outputs)
  foreach(text IN ITEMS man/${target}.1 bash/${target} zsh/_${target})
    string(REGEX REPLACE "/.*" "" kind ${text})
    if(NOT kind STREQUAL "man" AND target STREQUAL "kvo-import")
      continue() # which nobody types
    endif()
    add_custom_command(OUTPUT ${folder}/${text}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${folder}/${kind}
      COMMAND ${target} --texts ${kind} > ${folder}/${text}
      DEPENDS ${target}
      VERBATIM)
    list(APPEND outputs ${folder}/${text})
  endforeach()
  add_custom_target(${target}_texts ALL DEPENDS ${outputs})
  install(FILES ${folder}/man/${target}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 OPTIONAL)
  if(NOT target STREQUAL "kvo-import")
    install(FILES ${folder}/bash/${target} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions OPTIONAL)
    install(FILES ${folder}/zsh/_${target} DESTINATION ${KVO_ZSH_DIR} OPTIONAL)
  endif()
endfunction()

# A cross-built program cannot be asked.
if(NOT CMAKE_CROSSCOMPILING OR CMAKE_CROSSCOMPILING_EMULATOR)
  foreach(tool IN ITEMS kvorender kvoview kvo-import)
    if(TARGET ${tool})
      kvo_program_texts(${tool})
    endif()
  endforeach()
endif()

if(TARGET kvoview)
  set(desktop ${PROJECT_SOURCE_DIR}/tools/kvoview/desktop)
  # The day is the changelog's.
  file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md release REGEX "^## \\[${PROJECT_VERSION}\\] - ")
  if(NOT release)
    message(FATAL_ERROR "CHANGELOG.md does not know version ${PROJECT_VERSION}")
  endif()
  string(REGEX REPLACE ".* - " "" KVO_RELEASE_DATE ${release})
  configure_file(${desktop}/org.kvo.kvoview.metainfo.xml.in ${PROJECT_BINARY_DIR}/org.kvo.kvoview.metainfo.xml @ONLY)
  install(FILES ${desktop}/org.kvo.kvoview.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
  install(FILES ${desktop}/org.kvo.kvoview.svg DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
  install(FILES ${desktop}/kvo-pipeline.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/mime/packages)
  install(FILES ${PROJECT_BINARY_DIR}/org.kvo.kvoview.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
endif()

# The reference manual, where somebody has asked for it.
add_custom_target(manual COMMAND ${PROJECT_SOURCE_DIR}/scripts/manual ${PROJECT_BINARY_DIR}/manual USES_TERMINAL)
install(DIRECTORY ${PROJECT_BINARY_DIR}/manual/html/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/manual OPTIONAL)

if(KVO_BUILD_TESTS AND TARGET kvorender)
  add_test(NAME package.shells COMMAND ${PROJECT_SOURCE_DIR}/tests/package/shells ${PROJECT_BINARY_DIR})
  add_test(NAME package.desktop COMMAND ${PROJECT_SOURCE_DIR}/tests/package/desktop ${PROJECT_BINARY_DIR})
  add_test(NAME package.manual COMMAND ${PROJECT_SOURCE_DIR}/scripts/manual ${PROJECT_BINARY_DIR}/manual)
  add_test(NAME package.control COMMAND ${PROJECT_SOURCE_DIR}/tests/package/control)
  set_tests_properties(package.shells package.desktop package.control package.manual PROPERTIES LABELS unit SKIP_RETURN_CODE 77 TIMEOUT 300
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen")
endif()
