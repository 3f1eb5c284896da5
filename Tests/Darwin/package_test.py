"""What can be said about the macOS package without a Mac: its property lists are well-formed, they
agree with each other and with the constants in the code, and the protocols have their selectors."""

import pathlib
import plistlib
import re
import stat
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PACKAGE = ROOT / "Packaging/Darwin"

DAEMON_PROTOCOL = [
    "statusWithReply:",
    "activateWithRequest:reply:",
    "strengthenWithRequest:reply:",
    "extendWithRequest:reply:",
    "subscribeToStatusChangesWithReply:",
    "validateEnforcementWithReply:",
    "acknowledgeExpiryWithReply:",
    "armFilterConfigurationWithReply:",
    "announceUserInterfaceWithReply:",
]
CLIENT_PROTOCOL = ["daemonStatusChangedWithStatus:"]


def read(path: str) -> str:
    return (ROOT / path).read_text(encoding="utf-8")


def property_list(path: str) -> dict:
    with open(PACKAGE / path, "rb") as file:
        return plistlib.load(file)


def constant(header: str, name: str) -> str:
    """The text that a constant in a header of ours stands for."""
    found = re.search(rf'\b{name}\s*=\s*"([^"]*)"', read(header))
    assert found, f"{header} has no {name}"
    return found.group(1)


def service(name: str) -> str:
    return constant("StillowIPC/StillowDaemonService.hpp", name)


TEAM = constant("StillowIPC/CodeSigningRequirement.hpp", "teamIdentifier")


def methods(protocol: str) -> list[tuple[str, str]]:
    """Selector and whole declaration of each method of an Objective-C protocol, in order."""
    source = re.sub(r"//[^\n]*", "", read("Platform/Darwin/IPC/StillowXPCProtocols.h"))
    body = re.search(rf"@protocol {protocol}\b(.*?)@end", source, re.S).group(1)
    found = []
    for declaration in re.findall(r"-\s*\([^)]*\)[^;]*;", body):
        declaration = " ".join(declaration.split())
        selector = "".join(re.findall(r"(\w+:)", re.sub(r"\([^)]*\)", " ", declaration)))
        found.append((selector, declaration))
    return found


class ProtocolTest(unittest.TestCase):
    def test_the_daemons_protocol_has_its_nine_selectors_in_order(self):
        name = service("daemonProtocolName")
        self.assertEqual([selector for selector, _ in methods(name)], DAEMON_PROTOCOL)

    def test_the_clients_protocol_has_its_one_selector(self):
        name = service("clientProtocolName")
        self.assertEqual([selector for selector, _ in methods(name)], CLIENT_PROTOCOL)

    def test_every_method_takes_and_gives_what_the_protocol_says(self):
        for selector, declaration in methods(service("daemonProtocolName")):
            with self.subTest(selector):
                self.assertTrue(declaration.startswith("- (void)"), declaration)
                self.assertEqual("(NSData*)request" in declaration, "Request:" in selector)
                self.assertIn("eply:(StillowXPCReply)reply;", declaration)
        push = methods(service("clientProtocolName"))[0][1]
        self.assertEqual(push, "- (void)daemonStatusChangedWithStatus:(NSData*)status;")
        source = " ".join(read("Platform/Darwin/IPC/StillowXPCProtocols.h").split())
        self.assertIn(
            "typedef void (^StillowXPCReply)(NSData* _Nullable bytes, NSError* _Nullable error);",
            source,
        )

    def test_every_operation_has_its_method_and_every_method_is_implemented(self):
        operations = re.findall(
            r'\{Operation::(\w+), "\w+"\}', read("StillowIPC/DaemonOperation.hpp")
        )
        self.assertEqual(
            operations, [re.match(r"(\w+?)With", s).group(1) for s in DAEMON_PROTOCOL]
        )
        listener = read("Platform/Darwin/IPC/XPCDaemonListener.mm")
        connector = read("Platform/Darwin/IPC/XPCDaemonConnector.mm")
        for operation, selector in zip(operations, DAEMON_PROTOCOL):
            with self.subTest(operation):
                first = selector.split(":")[0]
                served = re.search(
                    rf"- \(void\){first}:.*?\{{\s*\[self receive:DaemonOperation::(\w+)", listener, re.S
                )
                self.assertEqual(served.group(1), operation)
                sent = re.search(
                    rf"case DaemonOperation::{operation}:\s*return \[remote_ (\w+):", connector
                )
                self.assertEqual(sent.group(1), first)


class PropertyListTest(unittest.TestCase):
    def test_every_list_of_the_package_is_well_formed(self):
        lists = sorted(PACKAGE.rglob("*.plist")) + sorted(PACKAGE.rglob("*.entitlements"))
        self.assertEqual(len(lists), 7)
        for path in lists:
            with self.subTest(path.name), open(path, "rb") as file:
                self.assertIsInstance(plistlib.load(file, fmt=plistlib.FMT_XML), dict)
                text = path.read_text(encoding="utf-8")
                keys = re.findall(r"^\t<key>(.*)</key>", text, re.M)
                self.assertEqual(len(keys), len(set(keys)), "a key that is there twice hides one")

    def test_the_job_offers_the_service_that_clients_ask_for(self):
        name = constant("StillowIPC/DaemonRegistration.hpp", "plistName")
        job = property_list(f"Daemon/{name}")
        self.assertEqual(job["Label"], service("machServiceName"))
        self.assertEqual(job["Label"] + ".plist", name)
        self.assertEqual(job["MachServices"], {service("machServiceName"): True})
        self.assertEqual(job["AssociatedBundleIdentifiers"], [service("appBundleIdentifier")])
        self.assertNotIn("Program", job, "the application may lie anywhere")
        self.assertNotIn("ProgramArguments", job)

    def test_bundles_carry_the_identifiers_that_the_daemon_trusts(self):
        for folder, identifier in [
            ("Application", service("appBundleIdentifier")),
            ("Daemon", service("machServiceName")),
            ("Extension", service("filterBundleIdentifier")),
        ]:
            with self.subTest(folder):
                info = property_list(f"{folder}/Info.plist")
                self.assertEqual(info["CFBundleIdentifier"], identifier)
                (entitlements,) = (PACKAGE / folder).glob("*.entitlements")
                rights = property_list(entitlements.relative_to(PACKAGE))
                self.assertEqual(rights["com.apple.application-identifier"], f"{TEAM}.{identifier}")
                self.assertEqual(rights["com.apple.developer.team-identifier"], TEAM)
                self.assertEqual(
                    rights["com.apple.developer.networking.networkextension"],
                    ["content-filter-provider-systemextension"],
                )
        trusted = read("StillowIPC/StillowDaemonService.hpp")
        self.assertIn("appBundleIdentifier, machServiceName, filterBundleIdentifier", trusted)

    def test_only_the_application_may_install_the_extension(self):
        right = "com.apple.developer.system-extension.install"
        self.assertTrue(property_list("Application/stillow.entitlements")[right])
        self.assertNotIn(right, property_list("Daemon/StillowDaemon.entitlements"))
        self.assertNotIn(right, property_list("Extension/filter.entitlements"))

    def test_the_extension_names_the_provider_class_that_is_built(self):
        extension = property_list("Extension/Info.plist")
        self.assertEqual(extension["CFBundlePackageType"], "SYSX")
        network = extension["NetworkExtension"]
        provider = network["NEProviderClasses"]["com.apple.networkextension.filter-data"]
        header = read("Platform/Darwin/Extension/StillowFilterDataProvider.h")
        self.assertIn(f"@interface {provider} : NEFilterDataProvider", header)
        groups = property_list("Extension/filter.entitlements")[
            "com.apple.security.application-groups"
        ]
        self.assertTrue(network["NEMachServiceName"].startswith(f"{groups[0]}."))
        self.assertTrue(groups[0].startswith(f"{TEAM}."))

    def test_the_extension_may_read_the_directory_that_the_daemon_writes(self):
        options = read("cmake/StillowOptions.cmake")
        directory = re.search(r'STILLOW_STATE_DIRECTORY "([^"]*)"', options).group(1)
        rights = property_list("Extension/filter.entitlements")
        self.assertEqual(
            rights["com.apple.security.temporary-exception.files.absolute-path.read-only"],
            [directory + "/"],
        )

    def test_all_bundles_have_the_version_of_the_build(self):
        version = re.search(r"project\(Stillow VERSION (\S+)", read("CMakeLists.txt")).group(1)
        for folder in ["Application", "Daemon", "Extension"]:
            with self.subTest(folder):
                info = property_list(f"{folder}/Info.plist")
                self.assertEqual(info["CFBundleShortVersionString"], version)
                self.assertEqual(info["LSMinimumSystemVersion"], "14.0")


class AssemblyTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.build = pathlib.Path(self.folder.name) / "build"
        self.destination = pathlib.Path(self.folder.name) / "destination"
        (self.build / "bin/StillowCore_StillowCore.bundle").mkdir(parents=True)
        (self.build / "bin/StillowCore_StillowCore.bundle/public_suffix_list.dat").touch()
        for program in ["stillow", "StillowDaemon", "com.larchmoor.Stillow.filter"]:
            path = self.build / "bin" / program
            path.write_text(program)
            path.chmod(0o755)

    def assemble(self) -> int:
        command = [PACKAGE / "assemble", self.build, self.destination]
        return subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode

    def test_every_executable_lies_where_its_bundle_and_the_job_look_for_it(self):
        self.assertEqual(self.assemble(), 0)
        app = self.destination / "Stillow.app"
        job = app / "Contents/Library/LaunchDaemons" / (service("machServiceName") + ".plist")
        with open(job, "rb") as file:
            program = app / plistlib.load(file)["BundleProgram"]
        self.assertEqual(program.read_text(), "StillowDaemon")
        bundles = [
            path.parents[1] for path in app.rglob("Info.plist") if path.parent.name == "Contents"
        ]
        self.assertEqual(len(bundles), 3)
        for bundle in bundles:
            with self.subTest(bundle.name):
                with open(bundle / "Contents/Info.plist", "rb") as file:
                    executable = bundle / "Contents/MacOS" / plistlib.load(file)["CFBundleExecutable"]
                self.assertEqual(executable.read_text(), executable.name)
                self.assertTrue(executable.stat().st_mode & stat.S_IXUSR)
        extension = service("filterBundleIdentifier") + ".systemextension"
        self.assertIn(app / "Contents/Library/SystemExtensions" / extension, bundles)
        resources = app / "Contents/Resources/StillowCore_StillowCore.bundle"
        self.assertTrue((resources / "public_suffix_list.dat").exists())

    def test_nothing_of_an_older_application_stays(self):
        self.assertEqual(self.assemble(), 0)
        stale = self.destination / "Stillow.app/Contents/stale"
        stale.touch()
        self.assertEqual(self.assemble(), 0)
        self.assertFalse(stale.exists())

    def test_a_build_that_lacks_a_program_makes_no_application(self):
        (self.build / "bin/stillow").unlink()
        self.assertEqual(self.assemble(), 66)
        self.assertFalse((self.destination / "Stillow.app").exists())


if __name__ == "__main__":
    unittest.main()
