# %% [markdown]
# Inspects a running system cell by cell: open it in an editor with notebooks, or run it as a script. Needs
# python3-matplotlib. Without a system, it serves itself a test picture.

# %% What is there
import sys

import matplotlib

if len(sys.argv) > 1:  # look.py FILE.png draws into a file
    matplotlib.use("Agg")
import matplotlib.pyplot as plt

import krvision as kr

broker = kr.Broker("dds:")
if not broker.wait_for("KRVideoDevice", timeout=1.0):
    broker.close()
    broker = kr.Broker()
    kr.CameraService(broker, ["test:ball"])
print("modules:", *broker.modules())
cameras = kr.Cameras(broker)
for camera in cameras.cameras():
    print(f"camera {camera.camera}: {camera.source} ({camera.state})")

# %% Five images, and when they were taken
with cameras.subscribe("look", 0, kr.Resolution.VGA, kr.ColorSpace.RGB, fps=30) as subscription:
    images = [image for image, _ in zip(subscription, range(5))]
times = [(image.time_stamp - images[0].time_stamp) / 1000 for image in images]
print("taken at", ", ".join(f"{time:.0f}" for time in times), "ms")

# %% The last one, its colours and its brightness along a row
image = images[-1]
figure, (picture, histogram, row) = plt.subplots(1, 3, figsize=(14, 4))
picture.imshow(image.pixels)
picture.axhline(image.height // 2, color="white")
picture.set_title(f"camera {image.camera}")
for layer, color in enumerate(("red", "green", "blue")):
    histogram.hist(image.pixels[:, :, layer].ravel(), bins=64, range=(0, 255), color=color, histtype="step")
histogram.set_title("levels")
luma = image.to(kr.ColorSpace.LUMA)
row.plot(luma.region(0, image.height // 2, image.width, 1)[0])
row.set_title("brightness of the middle row")
if len(sys.argv) > 1:
    figure.savefig(sys.argv[1])
else:
    plt.show()

# %% What the memory holds
for key, value in kr.Memory(broker).find().items():
    print(f"{key}: {str(value)[:80]}")
broker.close()
