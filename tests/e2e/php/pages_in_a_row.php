<?php
# --- a page => <head>^</head>
echo '<html><head></head>';
# --- no page => nothing
header('Content-Type: text/plain');
echo '<html><head></head>';
# --- an end without beginning => nothing
echo '</head>';
# --- a page in a buffer => <head>^</head>
ob_start();
echo '<html><head></head>';
# --- a beginning without end => nothing
echo '<html>';
absent();
# --- a page again => <head>^</head>
echo '<html><head></head>';
