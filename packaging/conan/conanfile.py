# Not run by the project's tests. For Conan 2: conan create packaging/conan
from pathlib import Path

from conan import ConanFile
from conan.errors import ConanInvalidConfiguration
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy


class ReticorConan(ConanFile):
    name = "reticor"
    version = "1.0.0"
    description = "Event-driven runtime for media servers, recorders and gateways"
    settings = "os", "arch", "compiler", "build_type"
    options = {"shared": [True, False]}
    default_options = {"shared": True}
    package_type = "library"

    def export_sources(self):
        root = Path(self.recipe_folder).resolve().parents[1]
        for pattern in ("CMakeLists.txt", "cmake/*", "Src/*", "include/*", "foundation/*"):
            copy(self, pattern, src=str(root), dst=self.export_sources_folder)

    def validate(self):
        if self.settings.os != "Linux":
            raise ConanInvalidConfiguration("Reticor is for Linux")
        check_min_cppstd(self, 17)

    def layout(self):
        cmake_layout(self)

    def generate(self):
        toolchain = CMakeToolchain(self)
        toolchain.cache_variables["RETICOR_BUILD_TESTS"] = False
        toolchain.cache_variables["RETICOR_BUILD_EXAMPLES"] = False
        toolchain.cache_variables["RETICOR_WERROR"] = False
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()

    def package_info(self):
        self.cpp_info.set_property("cmake_file_name", "Reticor")
        infra = self.cpp_info.components["infra"]
        infra.libs = ["OrvexInfra"]
        infra.includedirs = ["include/reticor"]
        infra.system_libs = ["pthread"]
        infra.set_property("cmake_target_name", "Orvex::Infra")
        reticor = self.cpp_info.components["reticor"]
        reticor.libs = ["Reticor"]
        reticor.includedirs = ["include/reticor"]
        reticor.requires = ["infra"]
        reticor.set_property("cmake_target_name", "Orvex::Reticor")
