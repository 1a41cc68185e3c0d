# The names libvsk.so exports: every declaration marked VSK_EXPORT in the public headers,
# and the platform interfaces the library provides to daemons: the declarations marked
# visibility("default") in the platform headers (`platform_dir`).
# Writes them, one a line, to `names_file`, and a linker version script that exports
# exactly those (everything else, C++ symbols included, stays local) to `map_file`.
function(vsk_write_export_files header_dir platform_dir names_file map_file)
  file(GLOB headers CONFIGURE_DEPENDS ${header_dir}/*.h)
  file(GLOB platform_headers CONFIGURE_DEPENDS ${platform_dir}/*.h)
  set(names "")
  foreach(h ${platform_headers})
    file(STRINGS ${h} lines REGEX "visibility\\(\"default\"\\)")
    foreach(line ${lines})
      if(line MATCHES "visibility\\(\"default\"\\).*\\)\\)[ \t]+[A-Za-z_][A-Za-z0-9_ \t*]*[ \t*]([A-Za-z_][A-Za-z0-9_]*)\\(")
        list(APPEND names ${CMAKE_MATCH_1})
      endif()
    endforeach()
  endforeach()
  foreach(h ${headers})
    file(STRINGS ${h} lines REGEX "VSK_EXPORT")
    foreach(line ${lines})
      # `VSK_EXPORT <type> <name>(`, `... <name>[`, `... <name>;`; the macro's own
      # definition and mentions in comments do not have that shape.
      if(line MATCHES "^[ \t]*VSK_EXPORT[ \t]+[^;(]*[ \t*]([A-Za-z_][A-Za-z0-9_]*)[ \t]*[\\(\\[;]")
        list(APPEND names ${CMAKE_MATCH_1})
      endif()
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES names)
  list(SORT names)
  string(REPLACE ";" "\n" names_text "${names}")
  file(CONFIGURE OUTPUT ${names_file} CONTENT "${names_text}\n")
  string(REPLACE ";" ";\n    " globals "${names}")
  file(CONFIGURE OUTPUT ${map_file}
       CONTENT "/* Generated from the public headers; do not edit. */\n{\n  global:\n    ${globals};\n  local:\n    *;\n};\n")
endfunction()
