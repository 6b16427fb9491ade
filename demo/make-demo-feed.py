#!/usr/bin/env python3
"""Makes the demo feed and serves it with nginx on 127.0.0.1.

Three small demo tools, built as real packages (tar.gz, zip, AppImage), two or
three builds each with at least one pre-release quality, overlay patches
between consecutive builds, all described by a feed signed with the build's
development CA (so the manager built next to it trusts it). nginx runs from a
configuration generated in the state folder, on a free loopback port, as the
current user. Prints the root feed URL on stdout; everything else goes to stderr.

    demo/make-demo-feed.py --build BUILD_DIR [--state DIR] [--stop]
    demo/make-demo-feed.py --build BUILD_DIR --state DIR --base-url URL --no-serve

With --no-serve only the files are made (STATE/www), for a server of the
caller's own that will answer at URL.
"""
import argparse
import hashlib
import io
import json
import os
import shutil
import signal
import socket
import stat
import subprocess
import sys
import tarfile
import time
import zipfile

TOOLS = [
    {
        "id": "demo-quill",
        "name": "Quill",
        "description": "A small text editor built on the shared tool platform",
        "type": "tar.gz",
        "script": "quill",
        "builds": [
            ("1.0", "101.10", ("Release", 1)),
            ("1.1", "101.20", ("Release", 1)),
            ("1.2 EAP", "102.3", ("EAP", 2)),
        ],
    },
    {
        "id": "demo-sift",
        "name": "Sift",
        "description": "Searches large folders of logs",
        "type": "zip",
        "script": "sift",
        "builds": [
            ("2.0", "200.1", ("Release", 1)),
            ("2.0.1", "200.5", ("Release", 1)),
            ("2.1 Beta", "201.0", ("Beta", 2)),
        ],
    },
    {
        "id": "demo-beacon",
        "name": "Beacon",
        "description": "Watches services and tells you when they stop",
        "type": "app_image",
        "builds": [
            ("3.1", "3.1.0", ("Release", 1)),
            ("3.2 RC", "3.2.0", ("RC", 2)),
        ],
    },
]

PATCH_COMMAND = ["/bin/sh", "-c", 'tar -xzf "$1" -C "$2"', "sh", "%PATCH_FILE%", "%INSTALL_DIRECTORY%"]
FIXED_MTIME = 1767225600  # reproducible archives: 2026-01-01


def log(*parts):
    print("demo:", *parts, file=sys.stderr)


def tool_files(tool, version, build):
    """The installed tree of one build (paths relative to the install folder)."""
    script = tool.get("script", tool["id"])
    launcher = f"#!/bin/sh\necho \"{tool['name']} {version} (build {build})\"\n"
    files = {
        f"bin/{script}.sh": (launcher.encode(), 0o755),
        f"bin/{script}64.vmoptions": (b"-Xms128m\n-Xmx750m\n-XX:ReservedCodeCacheSize=240m\n", 0o644),
        "build.txt": (f"{tool['id']}-{build}\n".encode(), 0o644),
        "lib/core.txt": (f"core library of {tool['name']} {build}\n".encode() * 20, 0o644),
        "lib/common.txt": (b"shared resources that do not change between builds\n" * 50, 0o644),
        "product-info.json": (json.dumps({"name": tool["name"], "version": version, "buildNumber": build}).encode(), 0o644),
    }
    return files


def tar_gz(entries):
    """entries: {path: (bytes, mode)} -> gzip'ed tar bytes, reproducible."""
    raw = io.BytesIO()
    with tarfile.open(fileobj=raw, mode="w", format=tarfile.PAX_FORMAT) as tar:
        for path in sorted(entries):
            data, mode = entries[path]
            info = tarfile.TarInfo(path)
            info.size, info.mode, info.mtime = len(data), mode, FIXED_MTIME
            tar.addfile(info, io.BytesIO(data))
    import gzip
    return gzip.compress(raw.getvalue(), mtime=FIXED_MTIME)


def zip_bytes(entries):
    raw = io.BytesIO()
    with zipfile.ZipFile(raw, "w", zipfile.ZIP_DEFLATED) as z:
        for path in sorted(entries):
            data, mode = entries[path]
            info = zipfile.ZipInfo(path, date_time=(2026, 1, 1, 0, 0, 0))
            info.external_attr = (stat.S_IFREG | mode) << 16
            info.compress_type = zipfile.ZIP_DEFLATED
            z.writestr(info, data)
    return raw.getvalue()


def app_image(tool, version, build):
    # A stand-in for an AppImage: a self-contained executable file.
    return (f"#!/bin/sh\n# {tool['name']} {version} portable executable\n"
            f"echo \"{tool['name']} {version} (build {build})\"\n").encode() + b"#" * 2000 + b"\n"


def checksums(data):
    return [
        {"alg": "sha-256", "value": hashlib.sha256(data).hexdigest()},
        {"alg": "sha-512", "value": hashlib.sha512(data).hexdigest()},
    ]


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def build_tool(tool, www, base_url):
    entries, patches = [], []
    previous = None
    for order, (version, build, (quality, quality_order)) in enumerate(tool["builds"], start=1):
        files = tool_files(tool, version, build)
        kind = tool["type"]
        if kind == "tar.gz":
            name = f"{tool['id']}-{build}.tar.gz"
            data = tar_gz({f"{tool['id']}-{build}/{p}": v for p, v in files.items()})
        elif kind == "zip":
            name = f"{tool['id']}-{build}.zip"
            data = zip_bytes({f"{tool['id']}-{build}/{p}": v for p, v in files.items()})
        else:
            name = f"{tool['name']}-{build}.AppImage"
            data = app_image(tool, version, build)
        write(os.path.join(www, "packages", name), data)
        if kind == "app_image":
            os.chmod(os.path.join(www, "packages", name), 0o755)
        package = {
            "os": "linux",
            "type": kind,
            "url": f"{base_url}/packages/{name}",
            "size": len(data),
            "checksums": checksums(data),
        }
        if kind in ("tar.gz", "zip"):
            package["strip_directories"] = 1
        entry = {
            "id": tool["id"],
            "name": tool["name"],
            "description": tool["description"],
            "version": version,
            "build": build,
            "order_value": order,
            "quality": {"name": quality, "order_value": quality_order},
            "major_version": {"name": version.split(".")[0], "order_value": int(version.split(".")[0])},
            "package": package,
            "whats_new": {"html": f"<p>{tool['name']} {version}: demo build {build}.</p>"},
        }
        if "script" in tool:
            script = tool["script"]
            entry["lathe_platform"] = {
                "shell_script_name": script,
                "vmoptions": f"bin/{script}64.vmoptions",
                "vmoptions_content": files[f"bin/{script}64.vmoptions"][0].decode(),
                "user_vmoptions_path": f"$XDG_CONFIG_HOME/Vantrel/{tool['name']}/{script}64.vmoptions",
                "startup_wm_class": tool["id"],
                "incompatible_vmoptions": ["-XX:+UseConcMarkSweepGC"],
                # A folder-name pattern, looked for in ~/.config/Vantrel (and as ~/.<pattern>/config).
                "config": [{"directory": f"{tool['name']}*",
                            "recent_projects_filename": "recentProjects.xml"}],
            }
            # Overlay patch from the previous build: the files that changed,
            # relative to the install folder (packages strip their top folder).
            if previous is not None:
                prev_build, prev_files = previous
                changed = {p: v for p, v in files.items() if prev_files.get(p) != v}
                patch_data = tar_gz(changed)
                patch_name = f"{tool['id']}-{prev_build}-{build}.patch.tar.gz"
                write(os.path.join(www, "patches", patch_name), patch_data)
                patches.append({
                    "application_id": tool["id"],
                    "from_build": prev_build,
                    "to_build": build,
                    "os": "linux",
                    "type": "lathe_patch",
                    "url": f"{base_url}/patches/{patch_name}",
                    "size": len(patch_data),
                    "checksums": checksums(patch_data)[:1],
                    "command": PATCH_COMMAND,
                })
            previous = (build, files)
        entries.append(entry)
    return entries, patches


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def stop_server(state):
    pid_file = os.path.join(state, "nginx.pid")
    try:
        with open(pid_file) as f:
            pid = int(f.read().strip())
    except (OSError, ValueError):
        return
    try:
        os.kill(pid, signal.SIGQUIT)
        for _ in range(50):
            os.kill(pid, 0)
            time.sleep(0.1)
    except ProcessLookupError:
        pass
    log("stopped the previous demo server", pid)


def start_server(state, www, port):
    conf = os.path.join(state, "nginx.conf")
    temp = os.path.join(state, "nginx-temp")
    os.makedirs(temp, exist_ok=True)
    with open(conf, "w") as f:
        f.write(f"""# Generated by demo/make-demo-feed.py
daemon on;
master_process off;
worker_processes 1;
pid {state}/nginx.pid;
error_log {state}/error.log warn;
events {{ worker_connections 64; }}
http {{
    access_log {state}/access.log;
    client_body_temp_path {temp}/body;
    proxy_temp_path {temp}/proxy;
    fastcgi_temp_path {temp}/fastcgi;
    uwsgi_temp_path {temp}/uwsgi;
    scgi_temp_path {temp}/scgi;
    types {{ application/octet-stream signed gz zip AppImage; application/json json; }}
    default_type application/octet-stream;
    server {{
        listen 127.0.0.1:{port};
        root {www};
    }}
}}
""")
    nginx = shutil.which("nginx") or "/usr/sbin/nginx"
    subprocess.run([nginx, "-c", conf, "-p", state, "-e", os.path.join(state, "error.log")], check=True)
    for _ in range(50):
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return
        except OSError:
            time.sleep(0.1)
    raise SystemExit(f"demo: nginx did not start, see {state}/error.log")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder (holds hangar-feed and the development CA)")
    parser.add_argument("--state", help="where to put the feed, packages and nginx files (default BUILD/demo-feed)")
    parser.add_argument("--stop", action="store_true", help="only stop a running demo server")
    parser.add_argument("--base-url", help="address the files will be served at (default: a free loopback port)")
    parser.add_argument("--no-serve", action="store_true", help="only make the files; do not start nginx")
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    state = os.path.abspath(args.state or os.path.join(build, "demo-feed"))
    os.makedirs(state, exist_ok=True)
    stop_server(state)
    if args.stop:
        return

    tool = os.path.join(build, "tools", "hangar-feed", "hangar-feed")
    ca = os.path.join(build, "feed-dev-ca")
    for needed in (tool, os.path.join(ca, "signer.crt"), os.path.join(ca, "signer.key")):
        if not os.path.exists(needed):
            raise SystemExit(f"demo: {needed} is missing; build the project first "
                             "(the demo is signed with the build's development CA)")

    www = os.path.join(state, "www")
    shutil.rmtree(www, ignore_errors=True)
    port = free_port()
    base_url = args.base_url.rstrip("/") if args.base_url else f"http://127.0.0.1:{port}"

    feeds = {}
    for t in TOOLS:
        feeds[t["id"]] = build_tool(t, www, base_url)
    # The root feed lists the platform tools and includes a second feed with
    # the rest, as the real public feed includes the third-party one.
    root_entries = feeds["demo-quill"][0] + feeds["demo-sift"][0]
    root_patches = feeds["demo-quill"][1] + feeds["demo-sift"][1]
    generated = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
    documents = {
        "demo-feed": {"feed_generation_time": generated, "entries": root_entries, "patches": root_patches,
                      "feeds": [{"url": f"{base_url}/feeds/demo-extra.feed.xz.signed"}]},
        "demo-extra": {"feed_generation_time": generated, "entries": feeds["demo-beacon"][0]},
    }
    for name, document in documents.items():
        source = os.path.join(www, "feeds", f"{name}.json")
        write(source, json.dumps(document, indent=2).encode())
        subprocess.run([tool, "sign", "--cert", os.path.join(ca, "signer.crt"), "--key", os.path.join(ca, "signer.key"),
                        source, os.path.join(www, "feeds", f"{name}.feed.xz.signed")], check=True)

    if not args.no_serve:
        start_server(state, www, port)
    url = f"{base_url}/feeds/demo-feed.feed.xz.signed"
    log(f"serving {len(root_entries) + len(feeds['demo-beacon'][0])} builds and {len(root_patches)} patches at {url}")
    log(f"stop it with: {sys.argv[0]} --build {build} --stop")
    print(url)


if __name__ == "__main__":
    main()
