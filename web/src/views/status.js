// What is amiss on the host and what to do; the applications, and what each was given.
import { useQuestion } from '../data.js';
import { count, fullTime } from '../format.js';
import { html } from '../html.js';
import { Scroll } from '../parts/scroll.js';
import { State } from '../parts/state.js';

const LIVE_MS = 30000;

export function Status() {
  const answer = useQuestion('status', {}, LIVE_MS);
  const { findings = [], applications = [], php = [] } = answer.data ?? {};
  return html`<h1>Status</h1><${State} answer=${answer}>
    ${findings.length === 0 ? html`<p>Nothing is amiss.</p>` : html`<section class="standsout" aria-label="Findings"><h2>What to do</h2><ul>${findings.map((finding, at) => html`<li key=${at}>${finding.what}. To mend: <b>${finding.remedy}</b></li>`)}</ul></section>`}
    ${applications.map(application => html`<section key=${application.name}><h2>${application.name || '(no name)'}</h2><${Given} application=${application} /></section>`)}
    <p class="dim">${count(php.length)} groups of PHP processes; <code>quorbit status</code> lists them.</p><//>`;
}

function Given({ application }) {
  const facts = Object.entries(application).filter(([name, value]) => name !== 'name' && value !== null && value !== '' && typeof value !== 'object');
  const given = application.given && typeof application.given === 'object' ? Object.entries(application.given) : [];
  return html`<dl class="facts">${facts.map(([name, value]) => html`<div key=${name}><dt>${name.replaceAll('_', ' ')}</dt><dd>${/^\d{4}-.*Z$/.test(value) ? fullTime(value) : String(value)}</dd></div>`)}</dl>
    ${given.length > 0 && html`<${Scroll} label="Settings given"><table class="plain"><thead><tr><th>Setting given</th><th>Value</th></tr></thead><tbody>${given.map(([name, value]) => html`<tr key=${name}><td>${name}</td><td class="text">${String(value)}</td></tr>`)}</tbody></table><//>`}`;
}
