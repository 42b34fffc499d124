"""What the store holds at the end, and whether it is right."""

import concurrent.futures
import hashlib
import json
import os
import subprocess

from ceph import KEY, SECRET, Failed
from streams import MIB

BUCKET = ":s3:streams"
ENGINE = f"""sh -c 'exec rclone rcat "{BUCKET}/$KORVEX_STREAM"'"""


def environment_of(cluster):
    own = {name: value for name, value in os.environ.items() if name != "AWS_CA_BUNDLE"}
    own.update({"RCLONE_CONFIG": "/dev/null", "RCLONE_S3_PROVIDER": "Ceph",
                "RCLONE_S3_ENDPOINT": cluster.url, "RCLONE_S3_ACCESS_KEY_ID": KEY,
                "RCLONE_S3_SECRET_ACCESS_KEY": SECRET, "RCLONE_S3_UPLOAD_CONCURRENCY": "2"})
    return own


class Bucket:
    """What is in the store, as any S3 client sees it."""

    def __init__(self, environment):
        self._environment = environment
        self.rclone("mkdir", BUCKET)

    def rclone(self, *words, data=None):
        done = subprocess.run(["rclone", *words], env=self._environment, input=data,
                              capture_output=True)
        if done.returncode != 0:
            raise Failed(f"rclone {' '.join(words)}: {done.stderr.decode().strip()}")
        return done.stdout

    def objects(self, streams):
        """The names of each stream's objects; under None, those that belong to no stream."""
        found = {stream.queue: [] for stream in streams}
        found[None] = []
        for name in self.rclone("lsf", BUCKET).decode().split():
            queue = name.rsplit("-", 2)[0]
            found[queue if queue in found else None].append(name)
        return found

    def digest(self, name):
        digest = hashlib.sha256()
        with subprocess.Popen(["rclone", "cat", f"{BUCKET}/{name}"], env=self._environment,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as reader:
            while block := reader.stdout.read(MIB):
                digest.update(block)
        return digest.hexdigest() if reader.returncode == 0 else "unreadable"

    def unfinished(self):
        """Uploads that an engine started but did not finish. No client sees them as objects."""
        text = self.rclone("backend", "list-multipart-uploads", BUCKET)
        return sum(len(uploads or []) for uploads in json.loads(text).values())

    def spoil(self, stored, failed):
        """Damages the store on purpose. Returns the streams affected."""
        changed, lost, *_ = [stream for stream in stored if stream.size > 1]
        names = self.objects(stored)
        self.rclone("rcat", f"{BUCKET}/{names[changed.queue][0]}", data=b"something else")
        self.rclone("deletefile", f"{BUCKET}/{names[lost.queue][0]}")
        self.rclone("rcat", f"{BUCKET}/{failed[0].queue}-now-1", data=b"a part")
        return {changed, lost, failed[0]}


def defect_of(stream, result, names, bucket):
    """What is wrong with a stream; nothing if it was stored, or failed without leaving anything."""
    if result["exitCode"] != 0:
        if names:
            return f"failed ({result['message']}), but {names} is stored"
        return "" if result["message"] else f"failed with {result['exitCode']} and no reason"
    if stream.breaks:
        return "said to be stored, though its command failed"
    if len(names) != 1:
        return f"said to be stored, but {len(names)} objects are there"
    found, wanted = bucket.digest(names[0]), stream.digest()
    return "" if found == wanted else f"differs: SHA-256 {found}, expected {wanted}"


def defects(results, bucket):
    """Of all streams, by stream; and under None that there are objects of no stream."""
    objects = bucket.objects(results)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        texts = pool.map(lambda item: defect_of(*item, objects[item[0].queue], bucket),
                         results.items())
        found = {stream: text for stream, text in zip(results, texts) if text}
    if objects[None]:
        found[None] = f"objects of no stream: {objects[None]}"
    return found
