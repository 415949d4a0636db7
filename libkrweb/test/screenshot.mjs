// Makes the documentation's pictures: the page after a newcomer has subscribed to the motion module with a click and
// plotted the moving share of the picture; then a system of several cameras.
//   screenshot.mjs KR MOTION-LIBRARY BROKER FOLDER CAMERA-SOURCE...

import { join } from "node:path";
import { Browser } from "./browser.mjs";
import { findFreePort, KrPrograms } from "./krprograms.mjs";
import { isPlotDrawn } from "./measure.mjs";

const [kr, motion, broker, folder, ...sources] = process.argv.slice(2);
const kPlotted_s = 25; // long enough for a curve

const programs = new KrPrograms(kr, broker);
const address = `127.0.0.1:${await findFreePort()}`;
const kNames = ["KRMotion", "StreetMotion"];
const browser = await Browser.open();

function havePictures(count) {
    const pictures = [...document.querySelectorAll("canvas.picture")].filter(({ dataset }) => Number(dataset.drawn) > 0);
    return pictures.length === count && [...document.querySelectorAll(".curtain")].every(({ hidden }) => hidden);
}

async function open(height, cameras) {
    const options = cameras.flatMap((source, i) => ["--camera", `${i}=${source}`, "--run", `${kNames[i] ?? `Motion${i}`}=${motion}`]);
    const server = await programs.start("serving on", "serve", ...options, "--web", address);
    const page = await browser.openPage(`http://${address}/`, 1440, height);
    await page.setColorScheme("light");
    await page.waitFor("pictures", havePictures, cameras.length);
    await page.waitFor("extractors", (count) => document.querySelectorAll(".extractor .state.idle").length === count, cameras.length);
    await page.waitFor("statistics", () => document.querySelector(".statistics li") && document.querySelector(".under .facts").textContent.includes("delivers"));
    return { page, server };
}

/** With a period at which the box keeps up with the ball. */
async function plotMotion(page) {
    await page.evaluate(() => (document.querySelector('[data-extractor="KRMotion"] .subscription input').value = 33));
    await page.click('[data-extractor="KRMotion"] .primary');
    await page.evaluate(() => document.querySelector("#memory").scrollIntoView({ behavior: "instant" }));
    await page.click('[aria-label="Plot KRMotion/Motion[0]"]');
    await page.waitFor("a curve", isPlotDrawn, "KRMotion/Motion[0]");
    await page.evaluate(() => scrollTo({ top: 0, behavior: "instant" }));
    await new Promise((resolve) => setTimeout(resolve, 1000 * kPlotted_s));
    await page.waitFor("pictures again", () => [...document.querySelectorAll(".curtain")].every(({ hidden }) => hidden));
}

try {
    const first = await open(900, ["test:ball"]);
    await first.page.saveScreenshot(join(folder, "web-start.png"));
    await plotMotion(first.page);
    await first.page.saveScreenshot(join(folder, "web-plot.png"), "#memory");
    await first.page.evaluate(() => localStorage.clear());
    await programs.end(first.server, "SIGTERM");

    const { page } = await open(1010, sources);
    for (let i = 1; i < sources.length; ++i) {
        programs.run("call", kNames[i] ?? `Motion${i}`, "setActiveCamera", String(i));
        programs.run("call", kNames[i] ?? `Motion${i}`, "subscribe", "door", "100", "1.0");
    }
    await plotMotion(page);
    await page.saveScreenshot(join(folder, "web.png"));
} finally {
    await browser.close();
    await programs.endAll();
}
