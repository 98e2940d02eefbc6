"""The disks of the machines: Debian with its kernel and the boot loader, and what makes it a card's machine or a user's."""

import hashlib
import pathlib
import shutil
import subprocess
import tempfile
import uuid

here = pathlib.Path(__file__).resolve().parent
source = here.parent.parent

packages = ["systemd", "systemd-sysv", "kmod", "e2fsprogs"]
# Of the card's machine, with what the packages of the tool depend on.
card_packages = ["grub2-common"]
# Of a developer's, with those that script/setup names.
user_packages = ["sudo", "procps"]

# The first boots in half the time, but only the second has the driver of the watchdog.
flavours = ["cloud-amd64", "amd64"]
# What reaches the root, in the order of loading.
initrd_modules = [
    "drivers/virtio/virtio_ring", "drivers/virtio/virtio", "drivers/virtio/virtio_pci_legacy_dev",
    "drivers/virtio/virtio_pci_modern_dev", "drivers/virtio/virtio_pci", "drivers/block/virtio_blk",
    "lib/crc16", "crypto/crc32c_generic", "fs/mbcache", "fs/jbd2/jbd2", "fs/ext4/ext4",
]  # fmt: skip
# What is loaded from the root.
other_modules = ["drivers/watchdog/watchdog", "drivers/watchdog/i6300esb"]
grub_modules = ["biosdisk", "part_msdos", "ext2", "normal", "loadenv", "test", "echo", "linux", "serial", "terminal"]

# Units that wait for hardware or a past that this machine does not have.
masked = ["proc-sys-fs-binfmt_misc.automount", "sys-kernel-config.mount", "sys-kernel-debug.mount", "sys-kernel-tracing.mount",
          "sys-fs-fuse-connections.mount", "dev-hugepages.mount", "systemd-journal-flush.service",
          "systemd-random-seed.service", "systemd-update-utmp.service", "systemd-timesyncd.service"]  # fmt: skip

# The card's paths: its state and firmware are on the card's own disk, in the directory that card-power mounts.
links = {
    "pkg/fpd/ucode": "/var/lib/card/state/pkg",
    ".cardsim/state": "/var/lib/card/state",
    ".cardsim/flash": "/var/lib/card/state/flash",
    "usr/local/etc/send_fpd_doorbell_event.sh": "/var/lib/card/state/etc/send_fpd_doorbell_event.sh",
    "usr/sbin/check-flash": "/var/lib/card/state/bin/check-flash",
}
directories = ["var/lib/card", "misc/scratch", "mnt/obfl"]

left_out = ["^metadata_csum_seed", "^orphan_file"]  # of the file system, as the loader of Debian 12 does not read it
first_partition = 2048  # in sectors of 512 bytes; the boot loader has those before


def run(*command, **options) -> str:
    """What the command wrote; what it complained of only when it failed."""
    done = subprocess.run([str(part) for part in command], text=True, capture_output=True, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))}: status {done.returncode}\n{done.stderr}")
    return done.stdout


def debian_root(cache: pathlib.Path, names: list[str]) -> pathlib.Path:
    """A tar file of a Debian with these packages, made once for a list of packages."""
    made = cache / f"debian-{hashlib.sha256(' '.join(names).encode()).hexdigest()[:12]}.tar"
    if not made.exists():
        fresh = made.with_suffix(".new")
        options = ["--dpkgopt=path-exclude=/usr/share/doc/*", "--dpkgopt=path-exclude=/usr/share/man/*",
                   "--dpkgopt=path-exclude=/usr/share/locale/*"]  # fmt: skip
        run("mmdebstrap", "--quiet", "--variant=minbase", "--format=tar", "--include=" + ",".join(names), *options,
            "bookworm", fresh)  # fmt: skip
        fresh.rename(made)
    return made


def unpacked_root(root: pathlib.Path, cache: pathlib.Path, names: list[str]) -> pathlib.Path:
    root.chmod(0o755)
    run("tar", "-xpf", debian_root(cache, names), "--exclude=./dev/*", "-C", root)
    return root


def debian_kernel(cache: pathlib.Path, flavour: str) -> pathlib.Path:
    """The directory into which the package of this kernel of Debian was unpacked."""
    depends = run("apt-cache", "depends", "--important", f"linux-image-{flavour}")
    name = next(line.split()[-1] for line in depends.splitlines() if "Depends: linux-image-" in line)
    made = cache / name
    if not made.exists():
        with tempfile.TemporaryDirectory(dir=cache) as fresh:
            run("apt-get", "download", "-o", "APT::Sandbox::User=root", "-q", name, cwd=fresh)
            run("dpkg-deb", "-x", next(pathlib.Path(fresh).glob("*.deb")), f"{fresh}/tree")
            pathlib.Path(fresh, "tree").rename(made)
    return made


def add_kernel(root: pathlib.Path, kernel: pathlib.Path, flavour: str):
    """A kernel with few of its modules, and an initial RAM disk with those that reach the root."""
    modules = next((kernel / "lib/modules").iterdir())
    shutil.copy(next((kernel / "boot").glob("vmlinuz-*")), root / f"boot/vmlinuz-{flavour}")
    own = root / "usr/lib/modules" / modules.name
    own.mkdir(parents=True)
    for module in present(modules, other_modules):
        shutil.copy(module, own)
    for name in ("modules.order", "modules.builtin", "modules.builtin.modinfo"):
        (own / name).touch()
    run("chroot", root, "depmod", modules.name)
    with tempfile.TemporaryDirectory() as directory:
        tree = pathlib.Path(directory)
        for name in ("bin", "dev", "root", "modules"):
            (tree / name).mkdir()
        shutil.copy("/bin/busybox", tree / "bin/busybox")
        shutil.copy(here / "initrd_init", tree / "init")
        for number, module in enumerate(present(modules, initrd_modules), 10):
            run("strip", "--strip-debug", "-o", tree / f"modules/{number}-{module.name}", module)
        names = "".join(f"{path.relative_to(tree)}\n" for path in sorted(tree.rglob("*")))
        with (root / f"boot/initrd-{flavour}").open("wb") as archive:
            subprocess.run(["cpio", "--quiet", "-o", "-H", "newc"], input=names.encode(), stdout=archive, cwd=tree, check=True)


def present(modules: pathlib.Path, names: list[str]) -> list[pathlib.Path]:
    """Those modules that are not built into this kernel."""
    files = [modules / "kernel" / f"{name}.ko" for name in names]
    return [file for file in files if file.exists()]


def add_system(root: pathlib.Path, cache: pathlib.Path, name: str):
    """What every machine has, and the files, the units and the target of the machine with this name."""
    for flavour in flavours:
        add_kernel(root, debian_kernel(cache, flavour), flavour)
    shutil.copytree(here / "any_machine", root, dirs_exist_ok=True)
    shutil.copytree(here / f"{name}_machine", root, dirs_exist_ok=True)
    units = root / "etc/systemd/system"
    for unit in masked:
        (units / unit).symlink_to("/dev/null")
    (units / "default.target").symlink_to(f"{name}.target")
    (root / "etc/fstab").write_text("")
    (root / "etc/hostname").write_text(f"{name}\n")
    (root / "etc/hosts").write_text(f"127.0.0.1 localhost {name}\n")
    # Otherwise each boot were a first one, with all that systemd makes then.
    (root / "etc/machine-id").write_text(f"{uuid.uuid4().hex}\n")
    for directory in ("etc", "var"):
        (root / directory / ".updated").touch()
    run("grub-editenv", root / "boot/grub/grubenv", "create")


def add_card(root: pathlib.Path):
    """The card's paths, which lead to its state."""
    for directory in directories:
        (root / directory).mkdir(parents=True, exist_ok=True)
    for link, target in links.items():
        (root / link).parent.mkdir(parents=True, exist_ok=True)
        (root / link).symlink_to(target)


def add_repository(root: pathlib.Path, builds: list[str], commands: list[str]):
    """An ordinary user with the repository, where it lies here, as it is built here; and what this user is to run."""
    run("chroot", root, "useradd", "--create-home", "--shell", "/bin/bash", "developer")
    repository = root / source.relative_to("/")
    repository.mkdir(parents=True)
    files = run("git", "-c", "safe.directory=*", "ls-files", "-z", "--cached", "--others", "--exclude-standard", cwd=source)
    names = [name for name in files.split("\0") if (source / name).is_file()] + [f"build/{build}" for build in builds]
    run("cp", "-a", "--parents", *names, repository, cwd=source)
    run("chroot", root, "chown", "-R", "developer:developer", source)
    # At its boot Debian clears /tmp, where the repository may lie.
    (root / "etc/tmpfiles.d/tmp.conf").symlink_to("/dev/null")
    (root / "etc/repository").write_text(f"{source}\n")
    (root / "etc/commands").write_text("".join(f"{command}\n" for command in commands))


def write_disk(root: pathlib.Path, disk: pathlib.Path, megabytes: int):
    """A disk with one partition and the boot loader in front of it, without loop devices: the loader needs no patch when its
    image lies from the second sector on."""
    with disk.open("wb") as file:
        file.truncate((megabytes + 1) << 20)
    run("sfdisk", "--quiet", disk, input=f"start={first_partition}, type=83, bootable\n")
    run("mke2fs", "-q", "-t", "ext4", "-O", ",".join(left_out), "-E", f"offset={first_partition * 512}",
        "-d", root, disk, f"{megabytes}M")  # fmt: skip
    loader = pathlib.Path("/usr/lib/grub/i386-pc")
    with tempfile.NamedTemporaryFile() as core, disk.open("r+b") as file:
        run("grub-mkimage", "-O", "i386-pc", "-d", loader, "-p", "(hd0,msdos1)/boot/grub", "-o", core.name, *grub_modules)
        text = pathlib.Path(core.name).read_bytes()
        assert len(text) <= (first_partition - 1) * 512, "the boot loader does not fit"
        file.write((loader / "boot.img").read_bytes()[:440])
        file.seek(512)
        file.write(text)


def make_card_machine(disk: pathlib.Path, cache: pathlib.Path, tool: list[pathlib.Path]):
    """The disk of the card's machine, with the packages of the tool installed. As root, to whom belongs what is on it."""
    depends = ", ".join(run("dpkg-deb", "--field", package, "Depends").strip() for package in tool)
    needed = sorted({name.split()[0] for name in depends.split(", ") if not name.startswith("bootup-fpd")})
    with tempfile.TemporaryDirectory(dir=cache) as tree:
        root = unpacked_root(pathlib.Path(tree), cache, packages + card_packages + needed)
        add_system(root, cache, "card")
        run("dpkg", f"--root={root}", "--install", *tool)
        add_card(root)
        write_disk(root, disk, 700)


def make_user_machine(disk: pathlib.Path, cache: pathlib.Path, builds: list[str], commands: list[str]):
    """The disk of a developer's machine, where all is installed that script/setup installs. As root."""
    listed = run("sed", "-n", "/^packages=(/,/^)/p", source / "script/setup")
    needed = run("bash", "-c", listed + 'printf "%s " "${packages[@]}"').split()
    with tempfile.TemporaryDirectory(dir=cache) as tree:
        root = unpacked_root(pathlib.Path(tree), cache, packages + user_packages + needed)
        add_system(root, cache, "user")
        add_repository(root, builds, commands)
        write_disk(root, disk, 4000)


def make_devices(disk: pathlib.Path, card: str, environment: dict[str, object], marks: list[str]) -> pathlib.Path:
    """The card's devices: the description, where the state comes to lie, and how it is powered."""
    with tempfile.TemporaryDirectory() as directory:
        tree = pathlib.Path(directory)
        shutil.copy(source / "cardsim/cards" / card / "card.toml", tree)
        (tree / "environment").write_text("".join(f"{name}={value}\n" for name, value in environment.items()))
        for mark in marks:
            (tree / mark).touch()
        disk.write_bytes(b"")
        run("mke2fs", "-q", "-t", "ext4", "-O", ",".join(left_out), "-d", tree, disk, "48M")
    return disk


def overlay(disk: pathlib.Path, file: pathlib.Path) -> pathlib.Path:
    """A disk that begins as another one and keeps its changes to itself."""
    run("qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b", disk.resolve(), file)
    return file
