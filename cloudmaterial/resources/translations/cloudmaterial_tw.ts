<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_TW">
<context>
    <name>cloudmaterial</name>
    <message>
        <source>CloudMaterial</source>
        <translation>雲素材</translation>
    </message>
    <message>
        <source>Login</source>
        <translation>登入</translation>
    </message>
    <message>
        <source>Logout</source>
        <translation>登出</translation>
    </message>
</context>
</TS>
