// Requests by time and duration: the darker a cell, the more of them. A click leads to the requests of a cell.
import { html } from '../html.js';
import { count, duration } from '../format.js';

const MOST_ROWS = 16;

// Bands of durations, each twice as long as the one below, that cover what there was.
function bandsOf(points) {
  const all = points.flatMap(point => point.durations.map(([us]) => us));
  if (!all.length) return [];
  const low = Math.floor(Math.log2(Math.max(1, Math.min(...all)))), high = Math.floor(Math.log2(Math.max(1, ...all)));
  const first = Math.max(low, high - MOST_ROWS + 1);
  return Array.from({ length: high - first + 1 }, (_, at) => first + at);
}

export function HeatMap({ points, from, until, step, href }) {
  const bands = bandsOf(points);
  if (!bands.length) return null;
  const cells = new Map();
  for (const point of points) {
    for (const [us, number] of point.durations) {
      const band = Math.max(bands[0], Math.floor(Math.log2(Math.max(1, us))));
      const key = `${point.at} ${band}`;
      cells.set(key, { at: point.at, band, count: (cells.get(key)?.count ?? 0) + number });
    }
  }
  const most = Math.max(...[...cells.values()].map(cell => cell.count));
  const x = at => `${100 * (at - from) / (until - from)}%`;
  return html`<figure class="chart heat"><figcaption><b>How long they took</b> <span class="dim">darker: more; a cell leads to its requests</span></figcaption>
    <div class="heat-rows" role="group" aria-label="Requests by time and duration" style=${{ height: `${bands.length * 14}px` }}>
      ${bands.map((band, at) => html`<span key=${band} class="heat-label" style=${{ bottom: `${at * 14}px` }}>${duration(2 ** band)}</span>`)}
      <div class="heat-cells">${[...cells.values()].map(cell => {
        const said = `${count(cell.count)} took ${duration(2 ** cell.band)} to ${duration(2 ** (cell.band + 1))} at ${new Date(cell.at).toLocaleString()}`;
        return html`<a key=${`${cell.at} ${cell.band}`} href=${href(cell.at, cell.at + step, 2 ** cell.band, 2 ** (cell.band + 1))} title=${said} aria-label=${said}
          style=${{ left: x(cell.at), width: `calc(${100 * step / (until - from)}% - 1px)`, bottom: `${(cell.band - bands[0]) * 14}px`, opacity: 0.2 + 0.8 * Math.sqrt(cell.count / most) }}></a>`;
      })}</div></div></figure>`;
}
