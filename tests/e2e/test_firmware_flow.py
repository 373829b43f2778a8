"""The whole way of an upgrade and of a support archive: real programs, real nginx, real script."""

import random
import tarfile

import pytest
from expect import until
from firmware_peer import RESULTS, ask, expect_failure, expect_stages
from test_ctl import HERE, run, untimed

from lab.banks import FACTORY, boot
from lab.ctlserver import CtlServer
from lab.device import REPOSITORY
from lab.firmwarefaults import FAULTS

IMAGE = "/tmp/tried.img"
SCRIPT = "/usr/bin/scripts/upgrade.sh"


@pytest.fixture
def ctl(online):
    """Gives commands to the controller of a registered device."""
    with CtlServer(online):
        yield lambda *words: run(*HERE, *words)


def banks(lab):
    """What would run after the next start, and what would stand by."""
    return tuple(boot(lab.device.folder / "flash"))


OLD = (FACTORY["a"], FACTORY["b"])


def test_one_command_renews_the_firmware(ctl, online, tmp_path):
    done = ctl("upgrade", "4.3.0", "--auto-reboot")
    assert done.returncode == 0, done.stdout + done.stderr
    said = untimed(done.stdout)
    stages = ["---> 101 ", '"Initiated"', '"InProgress"', '"UpdateComplete"',
              '"Rebooting"', '* the device says good-bye: "DEV_SW_REBOOT"', "* the device goes down",
              "* the device is up again", "<--- 100 ", "---> 400 ",
              "done: the device runs 4.3.0, and 4.2.1 stands by\n"]
    places = [said.find(stage) for stage in stages]
    assert -1 not in places and places == sorted(places), said
    assert "(downloading https://files.cloud.orvanta.example:8446/images/fw-4.3.0.img)" in said
    assert online.device.records("shutdown.sh") == [["SRV_SW_UPD"]]
    register = online.controller.messages(100)[-1]
    assert (register["activeSwVersion"], register["inActiveSwVersion"]) == ("4.3.0", "4.2.1")
    online.wait_registered()
    archive = tmp_path / "support.tar.gz"
    done = ctl("support-archive", "-o", str(archive))
    assert done.returncode == 0, done.stdout + done.stderr
    assert '"eId":"TechSupportUpload"' in done.stdout and "techsupport/network/routes" in done.stdout
    with tarfile.open(archive, "r:gz") as opened:
        names = opened.getnames()
        version = opened.extractfile("techsupport/system/version").read()
    assert version == b"NAME=quill\nVERSION=4.3.0\n"
    assert "techsupport/logs/device-agent.log" in names and "techsupport/config/config.txt" in names


def test_without_a_reboot_the_device_waits_for_one(ctl, online):
    done = ctl("upgrade", "4.3.0")
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.endswith("done: the new firmware is in the flash; the device runs it after "
                                "its next reboot (./dev ctl reboot)\n")
    assert banks(online) == ("4.3.0", "4.2.1")
    assert online.device.records("shutdown.sh") == []
    online.reboot()
    assert "VERSION=4.3.0" in online.device.read_text("/etc/version")


CODES = {"signature": 5, "payload": 5, "damaged": 4, "bootloader": 6, "sku": 10, "version": 11,
         "full-disk": 3, "status=9": 9}


def test_what_goes_wrong_leaves_the_device_as_it_was(ctl, online):
    assert set(FAULTS) < set(CODES)
    for fault, status in CODES.items():
        done = ctl("upgrade", "4.3.0", "--auto-reboot", "--fault", fault)
        assert (done.returncode, done.stderr) == (1, f"failed: {': '.join(RESULTS[status])}\n"), fault
        assert banks(online) == OLD, fault
    done = ctl("upgrade", online.files.url("absent.img"))
    assert (done.returncode, done.stderr) == (1, f"failed: {': '.join(RESULTS[3])}\n")
    assert online.device.records("shutdown.sh") == []
    done = ctl("upgrade", "4.3.0")
    assert done.returncode == 0 and banks(online) == ("4.3.0", "4.2.1"), done.stderr


def upgrade(lab, data):
    """The exit status of the device's script for this image, at once."""
    (lab.device.folder / "shared/image").write_bytes(data)
    lab.device.run(["cp", "/run/lab/shared/image", IMAGE], check=True)
    return lab.device.run([SCRIPT, IMAGE]).returncode


def test_no_changed_image_is_ever_written(lab):
    good = lab.firmware.image("4.3.0", bootloader=True, size=4096)
    assert upgrade(lab, good) == 0 and banks(lab) == ("4.3.0", "4.2.1")
    dice = random.Random(7)
    for _ in range(30):
        image = bytearray(lab.firmware.image("4.4.0", bootloader=True, size=4096))
        if dice.random() < 0.3:
            del image[dice.randrange(len(image)):]
        else:
            image[dice.randrange(len(image))] ^= 1 << dice.randrange(8)
        if upgrade(lab, bytes(image)) == 0:  # only what belongs to the tar alone has changed
            written = (lab.device.folder / "flash/bank-b/firmware.bin").read_bytes()
            assert written == random.Random("4.4.0").randbytes(4096)
            assert banks(lab) == ("4.4.0", "4.2.1")
            assert upgrade(lab, good) == 0
        assert banks(lab)[0] == "4.3.0"
    assert not lab.device.run(["sh", "-c", "ls -d /tmp/upgrade.*"]).stdout


def test_a_second_upgrade_before_the_reboot_spares_what_runs(lab):
    assert upgrade(lab, lab.firmware.image("4.3.0", size=4096)) == 0
    assert banks(lab) == ("4.3.0", "4.2.1")
    lab.device.run(["sh", "-c", "cd /mnt/flash && mkdir bank-b.new && mount -t tmpfs none bank-b.new"],
                   check=True)
    assert upgrade(lab, lab.firmware.image("4.4.0", size=4096)) == 7
    assert lab.device.read_text("/mnt/flash/boot") == "a\n", "nothing starts from half a bank"
    lab.device.run(["umount", "/mnt/flash/bank-b.new"], check=True)
    assert upgrade(lab, lab.firmware.image("4.4.0", size=4096)) == 0
    assert banks(lab) == ("4.4.0", "4.2.1")
    lab.reboot()
    assert "VERSION=4.4.0" in lab.device.read_text("/etc/version")
    assert upgrade(lab, lab.firmware.image("4.5.0", size=4096)) == 0
    assert banks(lab) == ("4.5.0", "4.4.0")


def test_a_board_without_a_sku_takes_no_firmware(lab):
    lab.device.write_text("/etc/velmora/board.json", "{}")
    assert upgrade(lab, lab.firmware.image("4.3.0", skus=())) == 10
    assert banks(lab) == OLD


def test_a_flash_without_room_keeps_what_runs(online):
    lab = online
    lab.files.start()
    lab.device.run(["sh", "-c", "mkdir /tmp/old && cp -r /mnt/flash/. /tmp/old && "
                    "mount -t tmpfs -o size=96k tmpfs /mnt/flash && cp -r /tmp/old/. /mnt/flash"],
                   check=True)
    ask(lab, lab.files.serve("big.img", lab.firmware.image("4.3.0", size=256 * 1024)))
    expect_stages(lab, "Initiated", "InProgress")
    expect_failure(lab, *RESULTS[7])
    assert lab.device.read_text("/mnt/flash/boot") == "a\n"
    assert lab.device.read_text("/mnt/flash/bank-a/version") == "4.2.1\n"


def test_power_that_fails_while_the_flash_is_written(online):
    lab = online
    lab.files.start()
    # it stops where the bank has been written and is not yet the one to start from
    script = (REPOSITORY / "lab/tools/upgrade.sh").read_text(encoding="utf-8")
    switch = 'start_from "$standby"'
    assert switch in script
    script = script.replace(switch, "touch /run/lab/shared/here; sleep 1000; " + switch)
    lab.device.write_text(SCRIPT, script, 0o755)
    ask(lab, lab.files.serve("fw.img", lab.firmware.image("4.3.0")))
    until(lab, (lab.device.folder / "shared/here").exists, "the script")
    since = lab.journal.position
    lab.reboot()
    lab.log.wait("MSG_REGISTER_SUCCESS received", since=since)
    register = lab.controller.messages(100)[-1]
    assert (register["activeSwVersion"], register["inActiveSwVersion"]) == ("4.2.1", "4.3.0")
    ask(lab, lab.files.url("fw.img"))
    expect_stages(lab, "Initiated", "InProgress")


def processes(lab, name):
    """Whether a program of this name runs on the device."""
    return lab.device.run(["pgrep", "-x", name]).stdout.split()


def test_an_abandoned_download_leaves_nothing(online):
    lab = online
    lab.files.start()
    lab.files.serve("big.img", bytes(4 * 1024 * 1024))
    before = lab.device.run(["ls", "-A", "/tmp"]).stdout
    ask(lab, lab.files.url("big.img", rate="100k"))
    expect_stages(lab, "Initiated")
    lab.log.wait("HTTPS_fw_dl: downloading ")
    lab.controller.kill()
    lab.log.wait("Terminating fw_dl pid")
    until(lab, lambda: not processes(lab, "fw_dl"), "the program's end")
    assert lab.device.run(["ls", "-A", "/tmp"]).stdout == before
    lab.wait_registered()
    ask(lab, lab.files.serve("fw.img", lab.firmware.image("4.3.0")))
    expect_stages(lab, "Initiated", "InProgress", "UpdateComplete")


def test_a_real_upload_is_stopped(online):
    lab = online
    lab.files.start()
    lab.files.kill()  # nobody answers, so it tries again and again
    lab.controller.send({"msgType": 113, "url": lab.files.upload_url("x"), "filename": "x",
                         "contentType": "application/gzip"})
    lab.log.wait("Upload_log:")
    lab.controller.send({"msgType": 114})
    assert lab.controller.wait_message(414) == {"msgType": 414}
    until(lab, lambda: not processes(lab, "s3upload"), "the program's end")
