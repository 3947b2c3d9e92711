# Installs the page's npm packages (npm ci, exactly the lock file's versions) in WORK
# and copies the chart library into WEB/vendor. Without npm, or when npm ci fails
# (no registry), it says so, leaves no stamp (the next build tries again) and the page goes without plots: the build does not fail,
# the browser test is skipped for the missing packages.
file(MAKE_DIRECTORY ${WORK} ${WEB}/vendor)
file(COPY ${SOURCE}/package.json ${SOURCE}/package-lock.json DESTINATION ${WORK})
set(result 1)
if(NPM)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1
                          ${NPM} ci --no-audit --no-fund --loglevel=error
                  WORKING_DIRECTORY ${WORK} RESULT_VARIABLE result)
endif()
if(result EQUAL 0 AND EXISTS ${WORK}/node_modules/chart.js/dist/chart.umd.js)
  file(COPY ${WORK}/node_modules/chart.js/dist/chart.umd.js DESTINATION ${WEB}/vendor)
else()
  message(WARNING "the station's npm packages are not installed (npm: ${NPM}, npm ci: ${result}); "
                  "its page shows no plots and the browser test is skipped")
  file(REMOVE ${WEB}/vendor/chart.umd.js)
  return() # no stamp: the next build tries again
endif()
file(TOUCH ${WORK}/stamp)
