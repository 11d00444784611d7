# The Debian package, built by `cpack` in the build folder. Its runtime
# dependencies are not listed by hand: dpkg-shlibdeps reads them from the
# libraries the programs are linked with, so they follow the build machine's
# BLAS and compiler.

set(CORVANE_PACKAGE_CONTACT "Corvane developers <corvane@localhost>"
    CACHE STRING "Maintainer named in the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corvane)
set(CPACK_PACKAGE_VENDOR "Corvane")
set(CPACK_PACKAGE_CONTACT "${CORVANE_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "measures and removes channel misregistration in multi-colour image stacks")
set(CPACK_PACKAGE_DESCRIPTION
    "Corvane measures the misregistration between the wavelength channels of a \
stack from a bead or spot target (corvane calibration) and removes it from any \
stack recorded later (corvane correction). The package also holds \
corvane-synth, which makes synthetic targets with a known misregistration, \
corvane-assess, which measures the registration of a target stack, and a \
Snakemake workflow that corrects a whole folder of stacks, locally or on a \
SLURM cluster.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps asks only for some libopenblas0, whose first choice is the
# threaded build; Corvane is built and tested on the single-threaded one, whose
# sums do not depend on the thread count.
set(CPACK_DEBIAN_PACKAGE_DEPENDS libopenblas0-serial)
# The workflow needs Snakemake, the programs do not.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS snakemake)

include(CPack)
