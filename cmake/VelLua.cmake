# vel_lua_archive(<target> <folder> <archive>): packs the Lua files below <folder> into a ZIP archive.
#
# Names in the archive are relative to the folder, times are fixed, so the same sources give the same archive.
function(vel_lua_archive target folder archive)
    file(GLOB_RECURSE modules CONFIGURE_DEPENDS RELATIVE ${folder} ${folder}/*.lua)
    list(SORT modules)
    list(TRANSFORM modules PREPEND ${folder}/ OUTPUT_VARIABLE sources)
    get_filename_component(archive_folder ${archive} DIRECTORY)
    add_custom_command(
        OUTPUT ${archive}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${archive_folder}
        COMMAND ${CMAKE_COMMAND} -E tar cf ${archive} --format=zip --mtime=2026-01-01 -- ${modules}
        WORKING_DIRECTORY ${folder}
        DEPENDS ${sources}
        COMMENT "Packing ${target}"
        VERBATIM)
    add_custom_target(${target} ALL DEPENDS ${archive})
endfunction()
