# Writes OUT, a header with each Lua script of DIR as a string constant named
# after its file: redis_lua/write.lua -> lua::write.
file(GLOB FILES ${DIR}/*.lua)
set(text "// Generated from platform/src/redis_lua/*.lua by embed_lua.cmake; do not edit.\n#pragma once\n\nnamespace platform::redis::lua {\n")
foreach(file ${FILES})
  get_filename_component(name ${file} NAME_WE)
  file(READ ${file} body)
  string(APPEND text "inline constexpr const char *${name} = R\"lua(${body})lua\";\n")
endforeach()
string(APPEND text "}  // namespace platform::redis::lua\n")
file(WRITE ${OUT}.tmp "${text}")
file(COPY_FILE ${OUT}.tmp ${OUT} ONLY_IF_DIFFERENT)
