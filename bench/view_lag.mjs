// How long a pose takes from its publication to the picture in the browser: kinetrel-view, the
// simulated tracker and Chromium on this machine, whose clock all of them share.
//
//   node bench/view_lag.mjs        needs what `scripts/test --browser` installs and builds
//
// The picture counts as drawn in the first task after its frame. Chromium draws in software here;
// a graphics card is faster. The floor is the wait for the screen's next frame: 8 ms on average.
import { launch, openTracker, sees, serve, simulated } from '../tests/browser/world.mjs';

const kFrames = 600;
const ends = [];
const run = { after: (end) => ends.unshift(end) };
try {
  const { url } = await serve(run);
  const { slot } = await simulated(run, url);
  const browser = await launch(run);
  for (const [width, height] of [[390, 844], [1280, 800], [1920, 1080]]) {
    const page = await openTracker(run, browser, url, slot, { width, height });
    await sees(page, (count) => kinetrelView.lags.length >= count, kFrames);
    const lags = (await page.evaluate(() => kinetrelView.lags)).sort((a, b) => a - b);
    const at = (part) => lags[Math.floor(part * (lags.length - 1))].toFixed(1);
    console.log(`${width} x ${height}: median ${at(0.5)} ms, 95 % within ${at(0.95)} ms, of ${lags.length} pictures`);
    await page.close();
  }
} finally {
  for (const end of ends) await end();
}
