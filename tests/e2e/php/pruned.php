<?php
function a() { b(); }
function b() { c(); }
function c() { d(); }
function d() { usleep(2000); }
a();
for ($i = 0; $i < getenv("CALLS"); $i++) usleep(5000);
