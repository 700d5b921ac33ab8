"""The three property lists beside the manifest."""

from __future__ import annotations

import plistlib
from datetime import datetime, timedelta
from typing import Any

from .archive import binary
from .keybag import KeyBag, MANIFEST_CLASS
from .model import Device, Options
from .randomness import Randomness
from .storage import Sink

MODELS = (("iPhone12,1", "16.7.2", "20H115"), ("iPhone14,5", "17.1", "21B74"), ("iPad8,9", "15.7.9", "19H365"))
NAMES = ("Ada\u2019s iPhone", "Zo\u00eb \U0001F4F1", "Test device")
# Midnight of 2023-11-05, UTC; the day of the backup varies by the seed.
FIRST_DATE = 1_699_142_400


def make_device(randomness: Randomness) -> Device:
    model = randomness.choice("device/model", MODELS)
    digits = str(randomness.number("device/digits", 10**33, 10**34 - 1))
    return Device(
        name=randomness.choice("device/name", NAMES), product_type=model[0], product_version=model[1], build=model[2],
        serial=randomness.octets("device/serial", 6).hex().upper(), udid=randomness.octets("device/udid", 20).hex(),
        guid=randomness.octets("device/guid", 16).hex().upper(), iccid=digits[:19], imei=digits[19:],
        date=FIRST_DATE + randomness.number("device/date", 0, 300 * 86400))


def moment(seconds: int) -> datetime:
    return datetime(1970, 1, 1) + timedelta(seconds=seconds)


class MetadataMaker:
    """Builds the property lists of one backup."""

    def __init__(self, options: Options, randomness: Randomness, device: Device, applications: list[str]) -> None:
        self._options = options
        self._randomness = randomness
        self._device = device
        self._applications = applications

    def write(self, sink: Sink, keybag: KeyBag, manifest_key: bytes) -> None:
        files = {"Manifest.plist": self.manifest(keybag, manifest_key), "Status.plist": self.status()}
        if not self._options.without_info:
            files["Info.plist"] = self.info()
        for name, data in files.items():
            with sink.writer(name) as out:
                out.write(data)

    def manifest(self, keybag: KeyBag, manifest_key: bytes) -> bytes:
        options = self._options
        values: dict[str, Any] = {
            "BackupKeyBag": keybag.blob,
            "Version": "10.0",
            "Date": moment(self._device.date),
            "SystemDomainsVersion": "24.0",
            "WasPasscodeSet": True,
            "Lockdown": self._lockdown(),
            "Applications": {name: self._application(name) for name in self._applications},
            "IsEncrypted": options.encrypted,
        }
        if options.encrypted and not options.binary_manifest:
            values["ManifestKey"] = keybag.lock(MANIFEST_CLASS, manifest_key)
        return binary(values)

    def status(self) -> bytes:
        return binary({
            "IsFullBackup": self._randomness.chance("status/full", 50),
            "Version": self._options.version,
            "UUID": self._randomness.uuid("status/uuid"),
            "Date": moment(self._device.date + 40),
            "BackupState": "new",
            "SnapshotState": "finished",
        })

    def info(self) -> bytes:
        device = self._device
        values: dict[str, Any] = {
            "Build Version": device.build,
            "Device Name": device.name,
            "Display Name": device.name,
            "GUID": device.guid,
            "ICCID": device.iccid,
            "IMEI": device.imei,
            "Installed Applications": list(self._applications),
            "Last Backup Date": moment(device.date),
            "Product Type": device.product_type,
            "Product Version": device.product_version,
            "Serial Number": device.serial,
            "Target Identifier": device.udid,
            "Target Type": "Device",
            "Unique Identifier": device.udid.upper(),
            "Applications": {name: {"PlaceholderIcon": self._icon(name)} for name in self._applications},
        }
        if self._options.info_format == "binary":
            return binary(values)
        return plistlib.dumps(values, fmt=plistlib.FMT_XML)

    def _lockdown(self) -> dict[str, Any]:
        device = self._device
        return {
            "ProductVersion": device.product_version,
            "BuildVersion": device.build,
            "DeviceName": device.name,
            "SerialNumber": device.serial,
            "ProductType": device.product_type,
            "UniqueDeviceID": device.udid,
            "com.example.accessibility": {"SpeakAutoCorrections": False, "ZoomTouchEnabled": 0},
            "com.example.terminal": {},
        }

    def _application(self, name: str) -> dict[str, Any]:
        return {
            "CFBundleIdentifier": name,
            "CFBundleVersion": str(self._randomness.number(f"application/{name}/version", 1, 9999)),
            "Path": f"/var/containers/Bundle/Application/{self._randomness.uuid(f'application/{name}')}/App.app",
            "ContainerContentClass": "Data/Application",
        }

    def _icon(self, name: str) -> bytes:
        return b"\x89PNG\r\n\x1a\n" + self._randomness.octets(f"icon/{name}", 500)
