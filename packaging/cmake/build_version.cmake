# Writes HEADER with the version and what is built. Runs with every build; a header that is already
# right keeps its time, so that nothing is compiled again.
#   cmake -D HEADER=... -D SOURCE=... -D VERSION=... -D HOW=... -P build_version.cmake

# Without a repository, as in a source package, only the version tells what was built.
execute_process(COMMAND git -C ${SOURCE} describe --always --dirty --abbrev=10 --match=v[0-9]*
  OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
if(failed)
  set(build "${HOW}")
else()
  set(build "${commit}, ${HOW}")
endif()
set(CONTENT "#define KINETREL_VERSION \"${VERSION}\"\n#define KINETREL_BUILD \"${build}\"\n")
file(CONFIGURE OUTPUT ${HEADER} CONTENT "${CONTENT}" @ONLY)
